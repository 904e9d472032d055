#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "database.h"
#include "trend_api.h"

// The checks of arguments that several chapters share.

namespace toolkit::trend {

// A text is read back up to its first zero byte. It is stored like that as well: what follows the
// byte would make two paths different to the file and the same to everyone who reads it, and an
// empty path stops every process that lists it.
tk_string stored_text(const tk_string& text);
bool is_empty_path(const tk_string& path);

// Periods and numbers of rows are 32-bit quantities in the file.
bool is_storable(uint64_t n);

// These print under the name `fn` and return -1, or return 0.

int check_open(const char* fn, const std::shared_ptr<CDatabase>& db);
int check_period(const char* fn, const std::shared_ptr<CDatabase>& db,
                 const CPeriodProperties& period);
int check_device(const char* fn, const std::shared_ptr<CDatabase>& db,
                 const CDeviceProperties& device);

// Filling and clearing tell a missing path and a missing identifier by one message.
int check_owner_of_rows(const char* fn, const std::shared_ptr<CDatabase>& db,
                        const CDeviceProperties& device);

int check_params(const char* fn, const std::shared_ptr<CDatabase>& db,
                 const CDeviceProperties& device, const std::vector<CParamProperties>& params);

// The keys of a table ascend, unless a damaged page has them otherwise: whoever goes from row to
// row might then never come to an end. Prints "Rows of 'trends_1_5' are out of order: the file is
// damaged", -1.
int rows_out_of_order(int64_t device, unsigned long period);

}  // namespace toolkit::trend
