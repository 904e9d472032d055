#include "shrink.h"

#include <algorithm>
#include <utility>

namespace model {

namespace {

constexpr size_t SHORT = 40;  // enough for a sequence that every part of it can be tried

class shrinker_t {
public:
    shrinker_t(operations_t operations, const std::function<bool(const operations_t&)>& fails,
               size_t tries)
        : _operations(std::move(operations)), _fails(fails), _tries(tries)
    {
    }

    operations_t run()
    {
        bool changed = true;
        while (changed && _tries > 0) {
            changed = false;
            for (size_t part = _operations.size() / 2; part > 0; part /= 2)
                changed = leave_out(part) || changed;
            changed = leave_out_pairs() || changed;
            changed = simplify() || changed;
        }
        return _operations;
    }

private:
    bool accept(operations_t candidate)
    {
        if (_tries == 0) return false;
        --_tries;
        if (!_fails(candidate)) return false;
        _operations = std::move(candidate);
        return true;
    }

    // From the end, for what happened last before the failure is the least likely to be idle.
    bool leave_out(size_t part)
    {
        bool changed = false;
        for (size_t end = _operations.size(); end > 0;) {
            const size_t begin = end > part ? end - part : 0;
            operations_t candidate = _operations;
            candidate.erase(place(candidate, begin), place(candidate, end));
            const bool accepted = accept(std::move(candidate));
            changed = accepted || changed;
            end = accepted || _operations.size() > SHORT ? begin : end - 1;
        }
        return changed;
    }

    // Two calls that need one another, a row and the one that makes up for it in a group say.
    bool leave_out_pairs()
    {
        if (_operations.size() > SHORT) return false;
        for (size_t j = _operations.size(); j-- > 1;)
            for (size_t i = j; i-- > 0;) {
                operations_t candidate = _operations;
                candidate.erase(place(candidate, j));
                candidate.erase(place(candidate, i));
                if (accept(std::move(candidate))) return true;
            }
        return false;
    }

    static operations_t::iterator place(operations_t& operations, size_t i)
    {
        return operations.begin() + static_cast<std::ptrdiff_t>(i);
    }

    bool simplify()
    {
        bool changed = false;
        for (size_t i = 0; i < _operations.size(); ++i) {
            bool again = true;
            while (again) {
                again = false;
                for (operation_t& op : simpler(_operations[i])) {
                    operations_t candidate = _operations;
                    candidate[i] = std::move(op);
                    if (!accept(std::move(candidate))) continue;
                    changed = again = true;
                    break;
                }
            }
        }
        return changed;
    }

    operations_t _operations;
    const std::function<bool(const operations_t&)>& _fails;
    size_t _tries;
};

}  // namespace

operations_t shrink(operations_t operations, const std::function<bool(const operations_t&)>& fails,
                    size_t tries)
{
    return shrinker_t(std::move(operations), fails, tries).run();
}

}  // namespace model
