#include "log_file.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "disk.h"
#include "numbers.h"
#include "talk.h"
#include "times.h"

namespace trendlog {

namespace {

constexpr int64_t SCHEMA_VERSION = 2;
constexpr size_t POOL_CAPACITY = 100;

int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool may_write(const std::string& name)
{
    return faccessat(AT_FDCWD, name.c_str(), W_OK, AT_EACCESS) == 0;
}

// A descriptor for a moment. Before SQLite opens the file: closing one drops the locks of the whole
// process on it.
class CDescriptor {
public:
    explicit CDescriptor(const std::string& name) : _fd(::open(name.c_str(), O_RDONLY | O_CLOEXEC))
    {
    }
    ~CDescriptor()
    {
        if (_fd >= 0) ::close(_fd);
    }

    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int operator*() const { return _fd; }

private:
    int _fd;
};

// Whether another process has the file open as SQLite does: in write-ahead mode each connection
// keeps a lock in the file for as long as it lives, at the place that the file format reserves.
bool is_open_elsewhere(int fd)
{
    constexpr off_t LOCK_BYTES = 0x40000000, SIZE = 512;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = LOCK_BYTES;
    lock.l_len = SIZE;
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

constexpr size_t HEADER_SIZE = 100;

}  // namespace

CLogFile::CLogFile(const CArguments& arguments, purpose_t purpose)
    : _name(arguments.text("FILE")),
      _purpose(purpose),
      _patience_ms(arguments.has("--timeout") ? parse_duration(arguments.text("--timeout")) * 1000
                                              : 5000)
{
    try {
        const bool is_new = purpose == TO_CREATE && file_size(_name) <= 0;
        if (!is_new) {
            check_header();
            open_handle();
            check_schema();
        }

        const bool read_only = purpose == TO_LOOK;
        const bool create = purpose == TO_CREATE || purpose == TO_UPGRADE;
        // Where the library brings it up to date, it waits without limit.
        if (purpose == TO_UPGRADE && arguments.has("--dry-run")) return;
        if (purpose == TO_UPGRADE) run("BEGIN EXCLUSIVE; ROLLBACK");
        const bool wal = is_new;  // an existing file keeps its journal mode
        static_cast<void>(library_line());
        if (_log.open(_name, read_only, create, POOL_CAPACITY, false, 0, 0, 0, wal) != 0)
            fail_with_library_line();
        if (is_new) open_handle();
    } catch (...) {
        close();
        throw;
    }
}

CLogFile::~CLogFile() { close(); }

void CLogFile::close() noexcept
{
    // The log goes last: as the last one to leave a file in write-ahead mode it tidies up.
    sqlite3_close(_handle);
    _handle = nullptr;
    _log.close();
    if (!_removes_companions) return;

    // A connection that only reads cannot remove the companions that it had to make. One that may
    // write does so when it is the last to close, and where there is nothing in them it changes
    // nothing else. Whether others have come meanwhile is for SQLite to see.
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(_name.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK)
        sqlite3_exec(db, "SELECT 1 FROM sqlite_master LIMIT 1", nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

// Why not --------------------------------------------------------------------------------------

void CLogFile::fail(const std::string& cause, exit_code_t code) const
{
    throw failure_t(_name + ": " + cause, code);
}

void CLogFile::fail_with_code(int code) const
{
    throw_if_interrupted();
    switch (code & 0xff) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            fail("locked by another program for more than " + duration_text(_patience_ms / 1000) +
                     "; try again, or wait longer with --timeout",
                 EXIT_BUSY);
        case SQLITE_NOTADB:
            fail("not a trend log: not an SQLite file, or an encrypted one", EXIT_BUSY);
        case SQLITE_CORRUPT:
            fail(
                "damaged (SQLite: database disk image is malformed); `trendlog salvage` saves what "
                "can be read");
        case SQLITE_READONLY:
        case SQLITE_CANTOPEN:
            fail(
                "a program that was writing it has ended without finishing, and what it left over "
                "cannot be taken over by looking; `trendlog checkpoint` does that, or the program "
                "that writes it");
        case SQLITE_IOERR:
            fail("cannot be read from its disk (SQLite code " + number_text(int64_t(code)) + ")");
        case SQLITE_NOMEM:
            fail("not enough memory");
        case SQLITE_FULL:
            fail("the disk is full");
        default:
            fail(std::string(sqlite3_errstr(code)) + " (SQLite code " + number_text(int64_t(code)) +
                 ")");
    }
}

namespace {

// SQLite's code in a line of the library, 0 where it has none.
int code_of(const std::string& line)
{
    const size_t code = line.find("(): ");
    if (code == std::string::npos) return 0;
    int number = 0;
    const size_t end = line.find_first_not_of("0123456789", code + 4);
    return read_number(line.substr(code + 4, end - code - 4), number) ? number : 0;
}

}  // namespace

// What the library says begins with the signature of its function, which is of no use here.
void CLogFile::fail_with_library_line() const { fail_with_library_line(library_line()); }

void CLogFile::fail_with_library_line(const std::string& line) const
{
    throw_if_interrupted();
    if (const int code = code_of(line)) fail_with_code(code);
    if (line.find("coarse rows off the grid") != std::string::npos)
        fail(
            "coarse rows do not end on the clock there; `trendlog rebuild --extend` puts them on "
            "it");
    const size_t error = line.find("Error: ");
    fail(error == std::string::npos ? line : line.substr(error + std::strlen("Error: ")));
}

void CLogFile::check_header()
{
    struct stat status {};
    if (stat(_name.c_str(), &status) != 0)
        fail(errno == ENOENT ? "there is no such file" : std::strerror(errno));
    if (S_ISDIR(status.st_mode)) fail("a folder, not a file");
    if (!S_ISREG(status.st_mode)) fail("not a regular file", EXIT_BUSY);

    const CDescriptor file(_name);
    if (*file < 0)
        fail(std::string("cannot be read: ") + std::strerror(errno) +
             "; ask its owner, or be another user");
    char header[HEADER_SIZE] = {};
    if (pread(*file, header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
        std::memcmp(header, "SQLite format 3", 16) != 0)
        fail("not a trend log: not an SQLite file", EXIT_BUSY);
    if (_purpose != TO_LOOK && !may_write(_name))
        fail(std::string("may not be written: ") + std::strerror(errno));

    constexpr size_t WRITE_VERSION = 18;
    constexpr char WRITE_AHEAD = 2;
    if (_purpose == TO_LOOK && header[WRITE_VERSION] == WRITE_AHEAD && !is_open_elsewhere(*file))
        check_companions();
}

// Of a file in write-ahead mode that nobody has open. To read it, its companions must be made, and
// removed again.
void CLogFile::check_companions()
{
    const int64_t left_over = file_size(_name + "-wal");
    if (left_over > 0)
        fail(
            "nobody has it open, but its write-ahead log (" + number_text(left_over) +
            " bytes) was left over by a crash; `trendlog checkpoint` takes it over, or the program "
            "that writes the file");
    if (!may_write(folder_of(_name)) || !may_write(_name))
        fail(
            "in write-ahead mode, nobody has it open, and this user may not write here, as reading "
            "it takes; copy it into a folder of your own");
    _removes_companions = left_over < 0 && file_size(_name + "-shm") < 0;
}

void CLogFile::open_handle()
{
    // One that may write takes over what a crash has left, as the log would.
    const int flags = _purpose == TO_LOOK ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    const int code = sqlite3_open_v2(_name.c_str(), &_handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    if (code != SQLITE_OK) fail_with_code(code);
    sqlite3_extended_result_codes(_handle, 1);
    sqlite3_busy_handler(_handle, wait, this);
}

void CLogFile::check_schema()
{
    read([] { return 0; });  // what is the matter with the file shows here
    sqlite3_stmt* statement = nullptr;
    const char* const sql =
        "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN ('periods', "
        "'devices')";
    int code = sqlite3_prepare_v2(_handle, sql, -1, &statement, nullptr);
    if (code == SQLITE_OK) code = sqlite3_step(statement);
    const bool is_log = code == SQLITE_ROW && sqlite3_column_int(statement, 0) == 2;
    sqlite3_finalize(statement);
    if (code != SQLITE_ROW) fail_with_code(code);
    if (!is_log) {
        if (_purpose == TO_CREATE && pragma("page_count") == 0) return;
        fail("not a trend log: an SQLite file of another program", EXIT_BUSY);
    }

    const int64_t version = _schema = pragma("user_version");
    if (version > SCHEMA_VERSION || version < 0)
        fail("made by a newer version: its schema is " + number_text(version) +
             ", this program knows " + number_text(SCHEMA_VERSION) + "; look for a newer trendlog");
    if (version < SCHEMA_VERSION && _purpose != TO_CREATE && _purpose != TO_UPGRADE)
        fail("made by an older version: its schema is " + number_text(version) +
             ", this program reads " + number_text(SCHEMA_VERSION) +
             "; `trendlog upgrade` brings it up to date");
}

// Locks ----------------------------------------------------------------------------------------

int CLogFile::wait(void* context, int count)
{
    CLogFile& file = *static_cast<CLogFile*>(context);
    if (count == 0) file._waited_since_ms = now_ms();
    if (now_ms() - file._waited_since_ms >= file._patience_ms) return 0;
    try {
        throw_if_interrupted();
    } catch (const interrupted_t&) {
        return 0;  // it comes again where exceptions may pass
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return 1;
}

void CLogFile::run(const char* sql)
{
    const int code = sqlite3_exec(_handle, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) fail_with_code(code);
}

// The log itself waits for ever. But a reader of this process does not meet a lock while another
// one, the handle, has the lock for readers.
void CLogFile::read(const std::function<int()>& work)
{
    struct lock_t {
        CLogFile& _file;
        ~lock_t()
        {
            sqlite3_exec(_file._handle, "ROLLBACK", nullptr, nullptr, nullptr);
            _file._reading = false;
        }
    };
    if (_reading) {
        if (work() != 0) fail_with_library_line();
        return;
    }
    run("BEGIN");
    _reading = true;
    const lock_t lock{*this};
    run("SELECT 1 FROM sqlite_master LIMIT 1");
    static_cast<void>(library_line());
    if (work() != 0) fail_with_library_line();
}

// The lock is asked for and let go again: one for everything, since without write-ahead mode those
// who read keep a commit waiting as well. Whoever writes first all the same, between that and the
// work, makes the work fail, and it is done again.
void CLogFile::change(const std::function<int()>& work)
{
    const int64_t began = now_ms();
    for (;;) {
        run("BEGIN EXCLUSIVE; ROLLBACK");
        static_cast<void>(library_line());
        if (work() == 0) return;
        const std::string line = library_line();
        const bool is_busy = (code_of(line) & 0xff) == SQLITE_BUSY;
        if (!is_busy || now_ms() - began >= _patience_ms) fail_with_library_line(line);
        throw_if_interrupted();
    }
}

// Configuration --------------------------------------------------------------------------------

const std::vector<CPeriodProperties>& CLogFile::periods()
{
    if (!_has_periods) read([&] { return _log.get_periods(_periods); });
    _has_periods = true;
    return _periods;
}

const std::vector<CDeviceProperties>& CLogFile::devices()
{
    if (!_has_devices) read([&] { return _log.get_devices(_devices); });
    _has_devices = true;
    return _devices;
}

std::vector<CParamProperties> CLogFile::params(const CDeviceProperties& device)
{
    std::vector<CParamProperties> params;
    read([&] { return _log.get_params(device, params); });
    return params;
}

const CLabel& CLogFile::label(const std::string& device, const std::string& param)
{
    if (!_has_labels) read([&] { return read_labels(_log, _labels); });
    _has_labels = true;
    static const CLabel none;
    const auto found = std::find_if(_labels.begin(), _labels.end(), [&](const CLabel& label) {
        return label._device == device && label._param == param;
    });
    return found == _labels.end() ? none : *found;
}

const CDeviceProperties& CLogFile::device(const std::string& path)
{
    std::string known;
    constexpr size_t SHOWN = 5;
    size_t n = 0;
    for (const CDeviceProperties& device : devices()) {
        if (device._path == path) return device;
        if (++n <= SHOWN) known += (known.empty() ? "'" : ", '") + device._path + "'";
    }
    if (n > SHOWN) known += " and " + std::to_string(n - SHOWN) + " more";
    fail("there is no device '" + path + "'; it has " + (known.empty() ? "none" : known));
}

int64_t CLogFile::pragma(const char* name)
{
    int64_t number = 0;
    const std::string text = pragma_text(name);
    static_cast<void>(read_number(text, number));
    return number;
}

std::string CLogFile::pragma_text(const char* name)
{
    sqlite3_stmt* statement = nullptr;
    const std::string sql = std::string("PRAGMA ") + name;
    int code = sqlite3_prepare_v2(_handle, sql.c_str(), -1, &statement, nullptr);
    if (code == SQLITE_OK) code = sqlite3_step(statement);
    std::string text;
    if (code == SQLITE_ROW) text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    sqlite3_finalize(statement);
    if (code != SQLITE_ROW) fail_with_code(code);
    return text;
}

}  // namespace trendlog
