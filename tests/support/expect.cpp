#include "expect.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

// Leads the file descriptor of standard error into a file while it lives.
class diversion {
public:
    diversion()
    {
        if (_file == nullptr) throw std::runtime_error("no temporary file");
        std::fflush(stderr);
        _saved = dup(STDERR_FILENO);
        if (_saved < 0 || dup2(fileno(_file), STDERR_FILENO) < 0) throw std::runtime_error("dup");
    }

    ~diversion()
    {
        std::fflush(stderr);
        dup2(_saved, STDERR_FILENO);
        close(_saved);
        std::fclose(_file);
    }

    diversion(const diversion&) = delete;
    diversion& operator=(const diversion&) = delete;

    std::string text()
    {
        std::fflush(stderr);
        std::string all;
        char piece[4096];
        std::rewind(_file);
        for (size_t size = 0; (size = std::fread(piece, 1, sizeof piece, _file)) > 0;)
            all.append(piece, size);
        return all;
    }

private:
    std::FILE* _file = std::tmpfile();
    int _saved = -1;
};

}  // namespace

std::string capture_stderr(const std::function<void()>& call)
{
    diversion to_file;
    call();
    const std::string text = to_file.text();
    // For scripts/coverage, which looks for texts that no test has met.
    if (const char* notes = std::getenv("TREND_CAPTURED"))
        std::ofstream(notes, std::ios::app) << text;
    return text;
}

bool names_condition(const std::string& output, const std::string& condition)
{
    const std::string before = " `'\"";
    const std::string after = "\n'`\"";
    for (size_t at = output.find(condition); at != std::string::npos;
         at = output.find(condition, at + 1)) {
        const size_t end = at + condition.size();
        if (at > 0 && before.find(output[at - 1]) != std::string::npos && end < output.size() &&
            after.find(output[end]) != std::string::npos)
            return true;
    }
    return false;
}
