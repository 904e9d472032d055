#include "replay.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <system_error>

#include "session.h"

namespace model {

namespace {

namespace fs = std::filesystem;

constexpr char FINDING[] = "finding.txt";

// How far the child has come.
struct progress_t {
    size_t calls;
    kind_t last_kind;
};

// Seen by the parent even when the child crashes.
class shared_progress_t {
public:
    shared_progress_t()
        : _memory(mmap(nullptr, sizeof(progress_t), PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (_memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
        new (_memory) progress_t{0, kind_t::LIST_PERIODS};
    }
    ~shared_progress_t() { munmap(_memory, sizeof(progress_t)); }

    shared_progress_t(const shared_progress_t&) = delete;
    shared_progress_t& operator=(const shared_progress_t&) = delete;

    volatile progress_t& operator*() const { return *static_cast<volatile progress_t*>(_memory); }

private:
    void* _memory;
};

std::string content(const fs::path& name)
{
    std::ifstream file(name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What differs first, or nothing.
std::string finding(const operations_t& operations, bool wal, bool forgetful,
                    volatile progress_t& progress)
{
    session_t session(wal, forgetful);
    for (const operation_t& op : operations) {
        if (out_of_bounds(op, session.model())) continue;
        progress.calls = progress.calls + 1;
        progress.last_kind = op.kind;
        std::string difference = session.step(op);
        if (!difference.empty())
            return "After call " + std::to_string(progress.calls) + ", " + describe(op) + "\n" +
                   difference;
    }
    const std::string difference = session.difference();
    return difference.empty() ? "" : "At the end\n" + difference;
}

[[noreturn]] void run_child(const operations_t& operations, bool wal, bool forgetful,
                            volatile progress_t& progress)
{
    std::string found;
    try {
        found = finding(operations, wal, forgetful, progress);
    } catch (const std::exception& error) {
        found = std::string("exception: ") + error.what();
    }
    if (!found.empty()) std::ofstream(FINDING) << found;
    std::exit(EXIT_SUCCESS);
}

}  // namespace

verdict_t replay(const operations_t& operations, bool wal, bool forgetful)
{
    const fs::path before = fs::current_path();
    std::string folder = (before / "replay-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), folder);

    shared_progress_t progress;
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        fs::current_path(folder);
        run_child(operations, wal, forgetful, *progress);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");

    verdict_t verdict;
    verdict.calls = (*progress).calls;
    verdict.last_kind = (*progress).last_kind;
    verdict.text = content(fs::path(folder) / FINDING);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS)
        verdict.text += "the process ended with status " + std::to_string(status) + " in call " +
                        std::to_string(verdict.calls) + ", after writing\n" +
                        content(fs::path(folder) / "stderr.txt");
    verdict.failed = !verdict.text.empty();
    fs::remove_all(folder);
    return verdict;
}

}  // namespace model
