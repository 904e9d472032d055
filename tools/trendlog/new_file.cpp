#include "new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "disk.h"
#include "trendlog.h"

namespace trendlog {

CNewFile::CNewFile(const std::string& name) : _name(name), _part(name + ".part")
{
    struct stat status {};
    if (lstat(_name.c_str(), &status) == 0) refuse(EEXIST);
    const int fd = ::open(_part.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno == EEXIST)
        throw failure_t(_part + ": there already, another one is being made or was broken off; " +
                        "remove it if it was");
    if (fd < 0) refuse(errno);
    ::close(fd);
}

CNewFile::~CNewFile()
{
    if (_kept) return;
    for (const char* const companion : {"", "-journal", "-wal", "-shm"})
        unlink((_part + companion).c_str());
}

void CNewFile::keep()
{
    // Some disks, those of sticks among them, know no such renaming: there it is looked first.
    int failed = renameat2(AT_FDCWD, _part.c_str(), AT_FDCWD, _name.c_str(), RENAME_NOREPLACE);
    if (failed != 0 && (errno == EINVAL || errno == ENOSYS)) {
        struct stat status {};
        if (lstat(_name.c_str(), &status) == 0) refuse(EEXIST);
        failed = rename(_part.c_str(), _name.c_str());
    }
    if (failed != 0) refuse(errno);
    _kept = true;
    const int folder = ::open(folder_of(_name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return;
    fsync(folder);
    ::close(folder);
}

void CNewFile::refuse(int error) const
{
    if (error == EEXIST)
        throw failure_t(_name + ": there is something of that name already, which stays as it is");
    throw failure_t(_name + ": cannot be made: " + std::strerror(error));
}

}  // namespace trendlog
