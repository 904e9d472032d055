#pragma once

#include <string>

struct sqlite3;

namespace trendlog {

// A database that is made under another name beside its own, and gets its own when it is whole.
// Whatever is there under that name already is never touched.
class CNewFile {
public:
    // Throws failure_t.
    explicit CNewFile(const std::string& name);
    ~CNewFile();  // removes what has not been kept

    CNewFile(const CNewFile&) = delete;
    CNewFile& operator=(const CNewFile&) = delete;

    // Under which it is made.
    const std::string& part() const { return _part; }

    // Everything must be closed by then.
    void keep();

private:
    [[noreturn]] void refuse(int error) const;

    std::string _name;
    std::string _part;
    bool _kept = false;
};

}  // namespace trendlog
