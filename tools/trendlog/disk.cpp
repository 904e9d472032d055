#include "disk.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>

#include "numbers.h"
#include "trendlog.h"

namespace trendlog {

std::string folder_of(const std::string& name)
{
    const size_t slash = name.find_last_of('/');
    return slash == std::string::npos ? "./" : name.substr(0, slash + 1);
}

int64_t file_size(const std::string& name)
{
    struct stat status {};
    return stat(name.c_str(), &status) == 0 ? static_cast<int64_t>(status.st_size) : -1;
}

int64_t free_space(const std::string& name)
{
    struct statvfs status {};
    if (statvfs(name.c_str(), &status) != 0) return -1;
    return static_cast<int64_t>(status.f_bavail) * static_cast<int64_t>(status.f_frsize);
}

bool on_one_disk(const std::string& a, const std::string& b)
{
    struct stat first {
    }, second{};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev;
}

std::string temporary_folder()
{
    for (const char* const variable : {"SQLITE_TMPDIR", "TMPDIR"}) {
        const char* const folder = std::getenv(variable);
        if (folder && access(folder, W_OK | X_OK) == 0) return folder;
    }
    for (const char* const folder : {"/var/tmp", "/usr/tmp", "/tmp"})
        if (access(folder, W_OK | X_OK) == 0) return folder;
    return ".";
}

std::string size_text(int64_t bytes)
{
    const char* const units[] = {"bytes", "KB", "MB", "GB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1000 && unit + 1 < std::size(units); ++unit)
        value /= 1000;
    return short_number(value, 3) + " " + units[unit];
}

void check_space(const std::string& name, int64_t needed, const std::string& what_for)
{
    const int64_t free = free_space(name);
    if (free == -1 || free >= needed) return;
    throw failure_t(name + ": " + what_for + " takes up to " + size_text(needed) + ", and only " +
                    size_text(free) + " are free there");
}

}  // namespace trendlog
