#pragma once

#include <cstdint>
#include <string>

namespace trendlog {

// The folder that a file is in, with its slash.
std::string folder_of(const std::string& name);

// -1 where there is no such file.
int64_t file_size(const std::string& name);

// Room that this user may fill on the disk of a file or folder, -1 where nobody says.
int64_t free_space(const std::string& name);
// Whether both are on one disk.
bool on_one_disk(const std::string& a, const std::string& b);
// Where SQLite puts what it needs for a while.
std::string temporary_folder();

// "81.9 KB", for people.
std::string size_text(int64_t bytes);

// Ends the command where there is no room for so much.
void check_space(const std::string& name, int64_t needed, const std::string& what_for);

}  // namespace trendlog
