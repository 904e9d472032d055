#include "disk.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>

#include "memory.h"

namespace disk {

namespace {

constexpr int PATH_SIZE = 256;
constexpr sqlite3_int64 LARGEST_FILE = 64 * 1024 * 1024;  // more only a damaged page number wants
constexpr int SHM_LOCKS = SQLITE_SHM_NLOCK;

std::optional<size_t> room;  // that is left, if it is limited

struct handle_t;

struct file_t {
    file_t() = default;
    ~file_t()
    {
        if (room) *room += _bytes.size();
    }

    file_t(const file_t&) = delete;
    file_t& operator=(const file_t&) = delete;

    std::string _bytes;

    // The locks of the rollback journal's protocol.
    int _readers = 0;
    const handle_t* _reserver = nullptr;
    const handle_t* _pender = nullptr;  // keeps new readers out, alone when there are no old ones

    // The shared memory of WAL mode, which lasts as long as somebody has it mapped.
    int _mappers = 0;
    std::vector<std::unique_ptr<char[]>> _regions;
    std::array<int, SHM_LOCKS> _shm_readers{};
    std::array<const handle_t*, SHM_LOCKS> _shm_writers{};
};

using file_ptr_t = std::shared_ptr<file_t>;

struct handle_t {
    sqlite3_file _base;
    file_ptr_t _file;
    std::string _name;  // empty for a temporary file
    bool _delete_on_close;
    bool _sync_folder;  // with the first sync of a journal its folder is synced
    int _lock;
    bool _mapped;
    unsigned int _shm_shared;  // a bit per lock
    unsigned int _shm_exclusive;
};

struct plan_t {
    call_t _call;
    int _code;
    size_t _n;
    bool _persistent;
    size_t _calls = 0;
    size_t _struck = 0;
};

std::map<std::string, file_ptr_t> files;
size_t handles = 0;
std::optional<plan_t> plan;
bool recording = false;
std::vector<event_t> events;
uint64_t random_state = 1;

handle_t& of(sqlite3_file* file) { return *reinterpret_cast<handle_t*>(file); }

// The code with which this call has to fail, or 0.
int failure(call_t call)
{
    if (!plan || plan->_call != call) return SQLITE_OK;
    ++plan->_calls;
    if (plan->_calls != plan->_n && !(plan->_persistent && plan->_calls > plan->_n))
        return SQLITE_OK;
    ++plan->_struck;
    return plan->_code;
}

void write_down(event_t event)
{
    if (recording && !event._file.empty()) events.push_back(std::move(event));
}

// Takes the room for the file's new size, or gives back what it does not need any more.
bool take_room(const file_t& file, size_t size)
{
    if (!room) return true;
    const size_t there = *room + file._bytes.size();
    if (size > there) return false;
    room = there - size;
    return true;
}

void put(handle_t& handle, const void* bytes, size_t size, size_t offset)
{
    std::string& to = handle._file->_bytes;
    if (to.size() < offset + size) to.resize(offset + size);
    std::memcpy(&to[offset], bytes, size);
    if (recording)
        write_down({event_t::WRITTEN, handle._name, offset,
                    std::string(static_cast<const char*>(bytes), size)});
}

// Files ----------------------------------------------------------------------------------------

void release_locks(handle_t& handle)
{
    file_t& file = *handle._file;
    if (handle._lock >= SQLITE_LOCK_SHARED) --file._readers;
    if (file._reserver == &handle) file._reserver = nullptr;
    if (file._pender == &handle) file._pender = nullptr;
    handle._lock = SQLITE_LOCK_NONE;
}

int shm_unmap(sqlite3_file* file, int)
{
    handle_t& handle = of(file);
    if (!handle._mapped) return SQLITE_OK;
    handle._mapped = false;
    if (--handle._file->_mappers == 0) handle._file->_regions.clear();
    return SQLITE_OK;
}

int close_file(sqlite3_file* file)
{
    const memory::unfailing inside;
    handle_t& handle = of(file);
    shm_unmap(file, 0);
    release_locks(handle);
    if (handle._delete_on_close) files.erase(handle._name);
    handle.~handle_t();
    --handles;
    return SQLITE_OK;
}

int read(sqlite3_file* file, void* out, int size, sqlite3_int64 offset)
{
    if (const int failed = failure(READ)) return failed;
    const std::string& bytes = of(file)._file->_bytes;
    const size_t start = std::min(static_cast<size_t>(offset), bytes.size());
    const size_t count = std::min(static_cast<size_t>(size), bytes.size() - start);
    std::memcpy(out, bytes.data() + start, count);
    if (count == static_cast<size_t>(size)) return SQLITE_OK;
    std::memset(static_cast<char*>(out) + count, 0, static_cast<size_t>(size) - count);
    return SQLITE_IOERR_SHORT_READ;
}

int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset)
{
    const memory::unfailing inside;
    if (const int failed = failure(WRITE)) return failed;
    if (offset + size > LARGEST_FILE) return SQLITE_FULL;
    const file_t& to = *of(file)._file;
    const auto end = static_cast<size_t>(offset + size);
    if (!take_room(to, std::max(to._bytes.size(), end))) return SQLITE_FULL;
    if (const int failed = failure(SHORT_WRITE)) {
        put(of(file), bytes, static_cast<size_t>(size) / 2, static_cast<size_t>(offset));
        return failed;
    }
    put(of(file), bytes, static_cast<size_t>(size), static_cast<size_t>(offset));
    return SQLITE_OK;
}

int truncate(sqlite3_file* file, sqlite3_int64 size)
{
    const memory::unfailing inside;
    if (const int failed = failure(TRUNCATE)) return failed;
    if (size > LARGEST_FILE || !take_room(*of(file)._file, static_cast<size_t>(size)))
        return SQLITE_FULL;
    of(file)._file->_bytes.resize(static_cast<size_t>(size));
    write_down({event_t::TRUNCATED, of(file)._name, static_cast<size_t>(size), ""});
    return SQLITE_OK;
}

int sync(sqlite3_file* file, int)
{
    const memory::unfailing inside;
    if (const int failed = failure(SYNC)) return failed;
    write_down({event_t::SYNCED, of(file)._name, 0, "", of(file)._sync_folder});
    of(file)._sync_folder = false;
    return SQLITE_OK;
}

int size(sqlite3_file* file, sqlite3_int64* out)
{
    if (const int failed = failure(SIZE)) return failed;
    *out = static_cast<sqlite3_int64>(of(file)._file->_bytes.size());
    return SQLITE_OK;
}

// Locks ----------------------------------------------------------------------------------------

int lock(sqlite3_file* opened, int level)
{
    handle_t& handle = of(opened);
    file_t& file = *handle._file;
    if (handle._lock >= level) return SQLITE_OK;
    if (const int failed = failure(LOCK)) return failed;

    const auto taken = [&](const handle_t* owner) { return owner && owner != &handle; };
    if (level == SQLITE_LOCK_SHARED) {
        if (taken(file._pender)) return SQLITE_BUSY;
        ++file._readers;
    } else {
        if (taken(file._reserver) || taken(file._pender)) return SQLITE_BUSY;
        file._reserver = &handle;
        if (level == SQLITE_LOCK_EXCLUSIVE) {
            file._pender = &handle;
            handle._lock = SQLITE_LOCK_PENDING;
            if (file._readers > 1) return SQLITE_BUSY;
        }
    }
    handle._lock = level;
    return SQLITE_OK;
}

int unlock(sqlite3_file* opened, int level)
{
    handle_t& handle = of(opened);
    if (handle._lock <= level) return SQLITE_OK;
    // The locks are gone all the same, as they are when the call of the system fails.
    const int failed = failure(UNLOCK);
    if (level == SQLITE_LOCK_NONE) {
        release_locks(handle);
    } else {
        if (handle._file->_reserver == &handle) handle._file->_reserver = nullptr;
        if (handle._file->_pender == &handle) handle._file->_pender = nullptr;
        handle._lock = level;
    }
    return failed;
}

int check_reserved_lock(sqlite3_file* file, int* out)
{
    if (const int failed = failure(LOCK)) return failed;
    *out = of(file)._file->_reserver != nullptr;
    return SQLITE_OK;
}

int shm_map(sqlite3_file* opened, int region, int region_size, int extend, void volatile** out)
{
    const memory::unfailing inside;
    *out = nullptr;
    if (const int failed = failure(SHM_MAP)) return failed;
    handle_t& handle = of(opened);
    file_t& file = *handle._file;
    if (!handle._mapped) {
        handle._mapped = true;
        ++file._mappers;
    }
    const auto wanted = static_cast<size_t>(region) + 1;
    if (file._regions.size() < wanted && !extend) return SQLITE_OK;
    while (file._regions.size() < wanted)
        file._regions.push_back(std::make_unique<char[]>(static_cast<size_t>(region_size)));
    *out = file._regions[wanted - 1].get();
    return SQLITE_OK;
}

int shm_lock(sqlite3_file* opened, int first, int count, int flags)
{
    handle_t& handle = of(opened);
    file_t& file = *handle._file;
    const bool shared = (flags & SQLITE_SHM_SHARED) != 0;
    const auto each = [&](auto what) {
        for (int i = first; i < first + count; ++i)
            what(static_cast<size_t>(i), 1U << i);
    };

    if (flags & SQLITE_SHM_UNLOCK) {
        each([&](size_t i, unsigned int bit) {
            if (handle._shm_shared & bit) --file._shm_readers[i];
            if (handle._shm_exclusive & bit) file._shm_writers[i] = nullptr;
            handle._shm_shared &= ~bit;
            handle._shm_exclusive &= ~bit;
        });
        return SQLITE_OK;
    }

    if (const int failed = failure(SHM_LOCK)) return failed;
    bool taken = false;
    each([&](size_t i, unsigned int bit) {
        const int others = file._shm_readers[i] - ((handle._shm_shared & bit) != 0 ? 1 : 0);
        if (file._shm_writers[i] && file._shm_writers[i] != &handle) taken = true;
        if (!shared && others > 0) taken = true;
    });
    if (taken) return SQLITE_BUSY;
    each([&](size_t i, unsigned int bit) {
        if (shared && !(handle._shm_shared & bit)) {
            ++file._shm_readers[i];
            handle._shm_shared |= bit;
        } else if (!shared) {
            file._shm_writers[i] = &handle;
            handle._shm_exclusive |= bit;
        }
    });
    return SQLITE_OK;
}

void shm_barrier(sqlite3_file*) {}

// The rest -------------------------------------------------------------------------------------

int file_control(sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; }
int sector_size(sqlite3_file*) { return 4096; }

// What SQLite takes every disk for: a write that is cut off leaves its neighbours alone.
int characteristics(sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; }

const sqlite3_io_methods METHODS = {2,
                                    close_file,
                                    read,
                                    write,
                                    truncate,
                                    sync,
                                    size,
                                    lock,
                                    unlock,
                                    check_reserved_lock,
                                    file_control,
                                    sector_size,
                                    characteristics,
                                    shm_map,
                                    shm_lock,
                                    shm_barrier,
                                    shm_unmap,
                                    nullptr,
                                    nullptr};

int open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags)
{
    const memory::unfailing inside;
    file->pMethods = nullptr;
    if (const int failed = failure(OPEN)) return failed;

    file_ptr_t found;
    if (name == nullptr) {
        found = std::make_shared<file_t>();
    } else if (const auto entry = files.find(name); entry != files.end()) {
        if ((flags & SQLITE_OPEN_CREATE) && (flags & SQLITE_OPEN_EXCLUSIVE)) return SQLITE_CANTOPEN;
        found = entry->second;
    } else {
        if (!(flags & SQLITE_OPEN_CREATE)) return SQLITE_CANTOPEN;
        found = files[name] = std::make_shared<file_t>();
        write_down({event_t::CREATED, name, 0, ""});
    }
    new (file) handle_t{{&METHODS},
                        found,
                        name == nullptr ? "" : name,
                        name != nullptr && (flags & SQLITE_OPEN_DELETEONCLOSE) != 0,
                        (flags & SQLITE_OPEN_CREATE) != 0 &&
                            (flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL)) != 0,
                        SQLITE_LOCK_NONE,
                        false,
                        0,
                        0};
    ++handles;
    if (out_flags) *out_flags = flags;
    return SQLITE_OK;
}

int remove(sqlite3_vfs*, const char* name, int sync_folder)
{
    const memory::unfailing inside;
    if (const int failed = failure(DELETE)) return failed;
    if (files.erase(name) == 0) return SQLITE_IOERR_DELETE_NOENT;
    write_down({event_t::DELETED, name, 0, "", sync_folder != 0});
    return SQLITE_OK;
}

int access(sqlite3_vfs*, const char* name, int flags, int* out)
{
    const memory::unfailing inside;
    if (const int failed = failure(ACCESS)) return failed;
    const auto entry = files.find(name);
    *out =
        entry != files.end() && (flags != SQLITE_ACCESS_EXISTS || !entry->second->_bytes.empty());
    return SQLITE_OK;
}

int full_path(sqlite3_vfs*, const char* name, int size, char* out)
{
    sqlite3_snprintf(size, out, "%s", name);
    return SQLITE_OK;
}

int randomness(sqlite3_vfs*, int size, char* out)
{
    for (int i = 0; i < size; ++i) {
        random_state = random_state * 6364136223846793005U + 1442695040888963407U;
        out[i] = static_cast<char>(random_state >> 56);
    }
    return size;
}

int sleep(sqlite3_vfs*, int microseconds) { return microseconds; }

int current_time(sqlite3_vfs*, double* out)
{
    *out = 2440587.5 + static_cast<double>(std::time(nullptr)) / 86400.0;
    return SQLITE_OK;
}

int last_error(sqlite3_vfs*, int, char*) { return 0; }

}  // namespace

void install()
{
    static sqlite3_vfs vfs{};
    vfs.iVersion = 1;
    vfs.szOsFile = sizeof(handle_t);
    vfs.mxPathname = PATH_SIZE;
    vfs.zName = "trend-disk";
    vfs.xOpen = open;
    vfs.xDelete = remove;
    vfs.xAccess = access;
    vfs.xFullPathname = full_path;
    vfs.xRandomness = randomness;
    vfs.xSleep = sleep;
    vfs.xCurrentTime = current_time;
    vfs.xGetLastError = last_error;
    sqlite3_vfs_register(&vfs, 1);
}

image_t image()
{
    image_t copy;
    for (const auto& [name, file] : files)
        copy[name] = file->_bytes;
    return copy;
}

void restore(const image_t& copy)
{
    files.clear();
    add(copy);
}

void crash(const std::function<void()>& end)
{
    const image_t now = image();
    const bool was_recording = recording;
    recording = false;
    end();
    recording = was_recording;
    restore(now);
}

void add(const image_t& copy)
{
    for (const auto& [name, bytes] : copy) {
        files[name] = std::make_shared<file_t>();
        files[name]->_bytes = bytes;
    }
}

void remove_files(const std::string& prefix)
{
    for (auto entry = files.begin(); entry != files.end();)
        entry = entry->first.compare(0, prefix.size(), prefix) == 0 ? files.erase(entry)
                                                                    : std::next(entry);
}

image_t renamed(const image_t& copy, const std::string& from, const std::string& to)
{
    image_t result;
    for (const auto& [name, bytes] : copy)
        if (name.compare(0, from.size(), from) == 0) result[to + name.substr(from.size())] = bytes;
    return result;
}

size_t open_files() { return handles; }

void arm(call_t call, int code, size_t n, bool persistent)
{
    plan = plan_t{call, code, n, persistent};
}

size_t disarm()
{
    const size_t struck = plan ? plan->_struck : 0;
    plan.reset();
    return struck;
}

void leave_room(size_t bytes) { room = bytes; }

void make_room() { room.reset(); }

void start_recording()
{
    events.clear();
    recording = true;
}

void mark(size_t number)
{
    if (recording) events.push_back({event_t::MARK, "", number, ""});
}

std::vector<event_t> stop_recording()
{
    recording = false;
    return std::move(events);
}

}  // namespace disk
