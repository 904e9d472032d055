#include <algorithm>

#include "commands/commands.h"
#include "input/input.h"
#include "input/lines.h"
#include "merge.h"
#include "numbers.h"
#include "talk.h"
#include "trend_transaction.h"

namespace trendlog {

namespace {

constexpr size_t BATCH = 10000;  // lines in one transaction
constexpr uint64_t SHOWN = 10;   // of the lines that do not fit

class CImport {
public:
    explicit CImport(const CArguments& arguments)
        : _arguments(arguments),
          _zone(arguments.text("--tz", "UTC")),
          _stops(arguments.text("--on-error", "stop") == "stop"),
          _file(arguments, TO_CHANGE),
          _lines(arguments.text("DATA")),
          _merger(_file, arguments,
                  [this](uint64_t line, const std::string& cause) { complain(line, cause); })
    {
    }

    void run()
    {
        if (is_dry_run(_arguments)) {
            // All of it in one transaction, since each batch goes on from the one before.
            _file.change([&] {
                CTransaction transaction(_file.log());
                if (const int failed = transaction.failed()) return failed;
                return read_all();
            });
        } else if (read_all() != 0) {
            _file.fail_with_library_line();
        }
        tell();
    }

private:
    int read_all()
    {
        CProgress progress(_file.name() + ": lines");
        std::string_view line;
        do {
            while (_lines.take(line)) {
                take(line);
                progress.at(_lines.number(), _lines.share());
                if (_batch.size() < BATCH) continue;
                if (const int failed = store()) return failed;
            }
            throw_if_interrupted();
        } while (_lines.fill(-1) || _lines.take(line));
        try {
            if (_input) _input->end();
        } catch (const bad_line_t& bad) {
            misfit(bad.what());
        }
        const int failed = store();
        settle();
        return failed;
    }

    void take(std::string_view line)
    {
        try {
            if (_lines.is_cut()) throw bad_line_t("longer than a line can be");
            const bool is_comment = line.find_first_not_of(" \t") == std::string_view::npos ||
                                    line[line.find_first_not_of(" \t")] == '#';
            if (!_input && is_comment) return;
            if (!_input) _input = make_input(_arguments, line, _zone);
            numbered_entry_t entry;
            if (!_input->parse(line, entry)) return;
            ++_entries;
            entry._line = _lines.number();
            const bool is_other = !entry._device.empty() &&
                                  entry._device != _arguments.text("DEVICE") &&
                                  !_arguments.has("--any-device");
            if (_arguments.has("--any-device")) entry._device.clear();
            if (is_other)
                ++_others;
            else
                _batch.push_back(std::move(entry));
        } catch (const bad_line_t& bad) {
            ++_entries;
            misfit(bad.what());
        } catch (const bad_input_t& bad) {
            throw failure_t(_lines.name() + ": " + bad.what());
        }
    }

    // One transaction; or part of the one around all of them.
    int store()
    {
        if (_batch.empty()) return 0;
        merge_counts_t counts;
        const auto work = [&] {
            counts = _counts;
            _complaints.clear();
            CTransaction transaction(_file.log());
            if (const int failed = transaction.failed()) return failed;
            if (const int failed = _merger.merge(_batch, counts)) return failed;
            return transaction.commit();
        };
        if (is_dry_run(_arguments)) {
            if (const int failed = work()) return failed;
        } else {
            _file.change(work);
        }
        _counts = counts;
        _stored_until = _batch.back()._line;
        settle();
        _batch.clear();
        return 0;
    }

    void misfit(const std::string& cause)
    {
        complain(_lines.number(), cause);
        _misfits.push_back(_complaints.back());
        _complaints.pop_back();
    }

    // A batch may be tried again, so that what is wrong with its lines is kept until it is stored.
    void complain(uint64_t line, const std::string& cause)
    {
        if (_stops)
            throw failure_t(
                _lines.name() + ", line " + std::to_string(line) + ": " + cause + "; " +
                (_stored_until == 0 || is_dry_run(_arguments)
                     ? "nothing is stored"
                     : "what is before line " + std::to_string(_stored_until + 1) + " is stored") +
                ", --on-error skip goes on");
        _complaints.emplace_back(line, cause);
    }

    void settle()
    {
        _complaints.insert(_complaints.end(), _misfits.begin(), _misfits.end());
        _misfits.clear();
        std::sort(_complaints.begin(), _complaints.end());
        for (const auto& [line, cause] : _complaints)
            if (++_bad <= SHOWN)
                remark(_lines.name() + ", line " + std::to_string(line) + ": " + cause);
        if (_bad > SHOWN && !_told_of_more) {
            remark(_lines.name() + ": more lines do not fit; they are counted");
            _told_of_more = true;
        }
        _complaints.clear();
    }

    void tell() const
    {
        std::string text =
            counted(_entries, "line") + ": " + counted(_counts._recorded, "row") + " recorded";
        const auto add = [&](uint64_t n, const char* what) {
            if (n > 0) text += ", " + std::to_string(n) + " " + what;
        };
        add(_counts._merged, "merged late");
        add(_counts._replaced, "replaced");
        add(_counts._present, "there already");
        add(_others, "of other devices");
        add(_bad, "did not fit");
        if (_counts._merged + _counts._replaced > 0)
            text += "; " + counted(_counts._recomputed, "coarse row") + " made anew";
        if (_counts._added > 0) text += "; " + counted(_counts._added, "parameter") + " added";
        tell_outcome(_file, _arguments, text);
    }

    const CArguments& _arguments;
    const CZone _zone;
    const bool _stops;
    CLogFile _file;
    CLines _lines;
    CMerger _merger;
    input_t _input;
    std::vector<numbered_entry_t> _batch;
    std::vector<std::pair<uint64_t, std::string>> _complaints;  // about lines of the batch
    std::vector<std::pair<uint64_t, std::string>> _misfits;     // about lines beside it
    merge_counts_t _counts;
    uint64_t _entries = 0;  // lines that say something
    uint64_t _others = 0;
    uint64_t _bad = 0;
    uint64_t _stored_until = 0;
    bool _told_of_more = false;
};

exit_code_t run(const CArguments& arguments)
{
    CImport(arguments).run();
    return EXIT_DONE;
}

}  // namespace

command_t import_command()
{
    const options_t own = {
        {"--add", "", "add device and parameters that are missing, as columns say"},
        {"--replace", "", "change rows that have values, instead of leaving them"},
        {"--any-device", "", "take the lines of all devices for this one"},
        {"--on-error",
         "WHAT",
         "lines that do not fit: stop (unless given) or skip",
         {"stop", "skip"}},
    };
    return {"import",
            SECTION_DATA,
            "Put rows from elsewhere into a device",
            "Lines of DATA are intervals of the finest period: CSV `time,PARAM,PARAM.min`, `time` "
            "being the end, `percent_valid` if known; or what `export` gives. Late ones are "
            "merged.",
            {{"FILE", "the log"}, {"DEVICE", "its path"}, {"DATA", "a file, - for standard input"}},
            own + input_options() + recipe_options() + options_t{dry_run_options()[0]} +
                common_options(),
            {{"trendlog import house.db house <(trendlog export two.db house --period 1)",
              "Rows of another log"},
             {"trendlog import plant.db mill - --add <<< $'time,t\\n1514765700,3'",
              "One row, of a new device"}},
            run};
}

}  // namespace trendlog
