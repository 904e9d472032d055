#include "faults.h"

#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

int always(void*) { return 1; }

void interrupt_next_step(sqlite3_stmt* stmt)
{
    sqlite3_progress_handler(sqlite3_db_handle(stmt), 1, always, nullptr);
}

void let_go(sqlite3_stmt* stmt)
{
    sqlite3_progress_handler(sqlite3_db_handle(stmt), 0, nullptr, nullptr);
    sqlite3_commit_hook(sqlite3_db_handle(stmt), nullptr, nullptr);
}

// The bytes by which SQLite's connections lock one another out, as its file format fixes them.
struct lock_bytes_t {
    std::string file;
    off_t start;
    off_t length;
};

lock_bytes_t lock_bytes(const std::string& file, busy_lock::kind_t kind)
{
    const std::string shm = file + "-shm";
    const bool wal = access(shm.c_str(), F_OK) == 0;
    switch (kind) {
        case busy_lock::WRITER:
            if (wal) return {shm, 120, 1};
            return {file, 0x40000001, 1};
        case busy_lock::CHECKPOINTER:
            return {shm, 121, 1};
        case busy_lock::EVERYBODY:
            return {file, 0x40000000, 512};
    }
    throw std::invalid_argument("kind of lock");
}

// The other process. It calls nothing but the kernel: SQLite must not be used across a fork.
[[noreturn]] void hold(const lock_bytes_t& bytes, int locked_fd, int release_fd, int milliseconds)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = bytes.start;
    lock.l_len = bytes.length;
    const int fd = open(bytes.file.c_str(), O_RDWR);
    const char held = fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0 ? 1 : 0;
    if (write(locked_fd, &held, 1) != 1 || held == 0) _exit(1);

    pollfd release = {release_fd, POLLIN, 0};
    poll(&release, 1, milliseconds);
    _exit(0);
}

}  // namespace

deny_prepare::deny_prepare(int n) : _left(n) {}

deny_prepare::deny_prepare(std::string sql, int n) : _sql(std::move(sql)), _left(n) {}

bool deny_prepare::denies(const std::string& sql)
{
    if (_left == 0 || (!_sql.empty() && sql != _sql)) return false;
    return --_left == 0;
}

bool refuse_bind::refuses_bind(sqlite3_stmt*) { return _left > 0 && --_left == 0; }

fail_reset::fail_reset(std::string sql, int n) : _sql(std::move(sql)), _left(n) {}

void fail_reset::before_reset(sqlite3_stmt* stmt)
{
    if (_left == 0 || sqlite3_sql(stmt) != _sql || --_left > 0) return;
    const unwatched inside;
    interrupt_next_step(stmt);
    sqlite3_step(stmt);
    let_go(stmt);
}

interrupt_step::interrupt_step(std::string sql, int n) : _sql(std::move(sql)), _left(n) {}

void interrupt_step::before_step(sqlite3_stmt* stmt)
{
    if (_left == 0 || sqlite3_sql(stmt) != _sql) return;
    if (--_left == 0) interrupt_next_step(stmt);
}

void interrupt_step::after_step(sqlite3_stmt* stmt, int)
{
    if (_left == 0) let_go(stmt);
}

void refuse_commit::before_step(sqlite3_stmt* stmt)
{
    if (_struck || std::strcmp(sqlite3_sql(stmt), "COMMIT") != 0) return;

    // SQLite asks the hook about transactions that have written only.
    sqlite3* const db = sqlite3_db_handle(stmt);
    if (sqlite3_txn_state(db, nullptr) == SQLITE_TXN_WRITE)
        sqlite3_commit_hook(db, always, nullptr);
    else
        interrupt_next_step(stmt);
    _struck = true;
}

void refuse_commit::after_step(sqlite3_stmt* stmt, int)
{
    if (_struck) let_go(stmt);
}

busy_lock::busy_lock(const std::string& file, kind_t kind, int milliseconds)
{
    const lock_bytes_t bytes = lock_bytes(file, kind);
    int locked[2];
    int released[2];
    if (pipe(locked) != 0) throw std::runtime_error("pipe");
    if (pipe(released) != 0) throw std::runtime_error("pipe");

    _holder = fork();
    if (_holder < 0) throw std::runtime_error("fork");
    if (_holder == 0) {
        close(released[1]);
        hold(bytes, locked[1], released[0], milliseconds);
    }

    close(locked[1]);
    close(released[0]);
    _release_fd = released[1];
    char held = 0;
    const bool answered = read(locked[0], &held, 1) == 1;
    close(locked[0]);
    if (!answered || held == 0) {
        release();
        throw std::runtime_error("no lock to be had on " + bytes.file);
    }
}

busy_lock::~busy_lock() { release(); }

void busy_lock::release()
{
    if (_holder < 0) return;
    close(_release_fd);
    waitpid(_holder, nullptr, 0);
    _holder = -1;
}
