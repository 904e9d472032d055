// The records that cross the library's boundary: defaults, absent values, orderings, copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "expect.h"
#include "trend_api.h"

using namespace toolkit::trend;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

uint64_t bits(double val)
{
    uint64_t out = 0;
    std::memcpy(&out, &val, sizeof(out));
    return out;
}

// Whether an expression over two types compiles --------------------------------------------------

template <template <typename, typename> class Expression, typename A, typename B, typename = void>
struct compiles : std::false_type {
};

template <template <typename, typename> class Expression, typename A, typename B>
struct compiles<Expression, A, B, std::void_t<Expression<A, B>>> : std::true_type {
};

#define EXPRESSION(name, operation)   \
    template <typename A, typename B> \
    using name = decltype(std::declval<const A&>() operation std::declval<const B&>())

EXPRESSION(plus, +);
EXPRESSION(minus, -);
EXPRESSION(times, *);
EXPRESSION(divided, /);
EXPRESSION(less, <);
EXPRESSION(greater, >);
EXPRESSION(less_equal, <=);
EXPRESSION(greater_equal, >=);
EXPRESSION(equal, ==);
EXPRESSION(unequal, !=);

#undef EXPRESSION

// The literal 0 is a null pointer as well as a number, so it is worth its own question.
template <typename A, typename>
using equal_to_literal_0 = decltype(std::declval<const A&>() == 0);

template <typename A, typename B>
constexpr bool any_arithmetic = compiles<plus, A, B>::value || compiles<minus, A, B>::value ||
                                compiles<times, A, B>::value || compiles<divided, A, B>::value;

template <typename A, typename B>
constexpr bool any_ordering =
    compiles<less, A, B>::value || compiles<greater, A, B>::value ||
    compiles<less_equal, A, B>::value || compiles<greater_equal, A, B>::value;

template <typename A, typename B>
constexpr bool any_equality = compiles<equal, A, B>::value || compiles<unequal, A, B>::value;

CParamProperties param(int64_t index)
{
    CParamProperties out;
    out._index = index;
    return out;
}

}  // namespace

// COptVal: absent and present --------------------------------------------------------------------

TEST(opt_val, is_absent_by_default)
{
    const COptVal val;
    EXPECT_FALSE(val);
}

TEST(opt_val, marks_absence_with_the_plain_quiet_nan)
{
    EXPECT_EQ(0x7ff8000000000000u, bits(COptVal()._val));
}

TEST(opt_val, is_present_for_every_number)
{
    for (const double val : {0.0, -0.0, 1.0, -1e300, 5e-324, infinity, -infinity}) {
        const COptVal opt(val);
        EXPECT_TRUE(opt) << val;
        EXPECT_EQ(bits(val), bits(*opt)) << val;
    }
}

TEST(opt_val, made_from_nan_is_absent)
{
    EXPECT_FALSE(COptVal(not_a_number));
    EXPECT_FALSE(COptVal(-not_a_number));
}

TEST(opt_val, follows_what_is_assigned_to_it)
{
    COptVal val = 2.5;
    ASSERT_TRUE(val);
    EXPECT_EQ(2.5, *val);

    val = COptVal();
    EXPECT_FALSE(val);

    val = 0.0;
    ASSERT_TRUE(val);
    EXPECT_EQ(0.0, *val);
}

TEST(opt_val, follows_its_field)
{
    COptVal val;
    val._val = 7.0;
    EXPECT_TRUE(val);
    val._val = not_a_number;
    EXPECT_FALSE(val);
}

TEST(opt_val, gives_access_to_the_stored_value_itself)
{
    const COptVal val(1.5);
    static_assert(std::is_same_v<decltype(*val), const double&>);
    EXPECT_EQ(&val._val, &*val);
}

TEST(opt_val, stops_when_an_absent_value_is_taken)
{
    EXPECT_STOPS(*COptVal(), "*this");
    EXPECT_STOPS(*COptVal(not_a_number), "*this");
}

// COptVal: a condition and nothing else ----------------------------------------------------------

TEST(opt_val, converts_to_the_address_of_is_valid_when_present)
{
    bool (COptVal::*const token)() const = COptVal(0.0);
    EXPECT_TRUE(token == &COptVal::is_valid);
}

TEST(opt_val, converts_to_a_null_member_pointer_when_absent)
{
    bool (COptVal::*const token)() const = COptVal();
    EXPECT_TRUE(token == nullptr);
}

TEST(opt_val, is_valid_is_only_a_token_and_always_true)
{
    EXPECT_TRUE(COptVal(1.0).is_valid());
    EXPECT_TRUE(COptVal().is_valid());
}

TEST(opt_val, works_in_every_kind_of_condition)
{
    const COptVal present(0.0);
    const COptVal absent;
    EXPECT_TRUE(present && !absent);
    EXPECT_TRUE(absent || present);
    EXPECT_EQ(1, present ? 1 : 2);
    EXPECT_EQ(2, absent ? 1 : 2);
}

TEST(opt_val, does_not_compute)
{
    static_assert(any_arithmetic<double, int>, "the question can be answered with yes");
    static_assert(!any_arithmetic<COptVal, COptVal>);
    static_assert(!any_arithmetic<COptVal, double> && !any_arithmetic<double, COptVal>);
    static_assert(!any_arithmetic<COptVal, int> && !any_arithmetic<int, COptVal>);
    static_assert(!any_arithmetic<COptVal, bool> && !any_arithmetic<bool, COptVal>);
}

TEST(opt_val, has_no_order)
{
    static_assert(any_ordering<double, int>, "the question can be answered with yes");
    static_assert(!any_ordering<COptVal, COptVal>);
    static_assert(!any_ordering<COptVal, double> && !any_ordering<double, COptVal>);
    static_assert(!any_ordering<COptVal, int> && !any_ordering<int, COptVal>);
    static_assert(!any_ordering<COptVal, bool> && !any_ordering<bool, COptVal>);
}

TEST(opt_val, does_not_compare)
{
    static_assert(any_equality<double, int>, "the question can be answered with yes");
    static_assert(compiles<equal_to_literal_0, double, void>::value, "so can this one");
    static_assert(!any_equality<COptVal, COptVal>);
    static_assert(!any_equality<COptVal, double> && !any_equality<double, COptVal>);
    static_assert(!any_equality<COptVal, int> && !any_equality<int, COptVal>);
    static_assert(!any_equality<COptVal, bool> && !any_equality<bool, COptVal>);
    static_assert(!compiles<equal_to_literal_0, COptVal, void>::value);
    static_assert(!any_equality<COptVal, std::nullptr_t> && !any_equality<std::nullptr_t, COptVal>);
}

TEST(opt_val, comes_from_a_number_but_never_turns_into_one)
{
    static_assert(std::is_convertible_v<double, COptVal>);
    static_assert(!std::is_convertible_v<COptVal, double>);
    static_assert(!std::is_convertible_v<COptVal, int>);
    static_assert(!std::is_convertible_v<COptVal, int64_t>);
    static_assert(!std::is_convertible_v<COptVal, const void*>);
}

TEST(opt_val, copies_present_and_absent_values_bit_by_bit)
{
    static_assert(std::is_trivially_copyable_v<COptVal>);
    const COptVal present(-0.0);
    const COptVal absent;
    const COptVal copy_of_present(present);
    COptVal copy_of_absent(1.0);
    copy_of_absent = absent;
    EXPECT_EQ(bits(-0.0), bits(*copy_of_present));
    EXPECT_FALSE(copy_of_absent);
    EXPECT_FALSE(absent);
}

// CSample and CSnapshot --------------------------------------------------------------------------

TEST(sample, is_absent_in_all_five_values_by_default)
{
    const CSample sample;
    EXPECT_FALSE(sample._min);
    EXPECT_FALSE(sample._max);
    EXPECT_FALSE(sample._avg);
    EXPECT_FALSE(sample._actual);
    EXPECT_FALSE(sample._sum);
}

TEST(sample, holds_the_five_values_in_their_order_and_nothing_else)
{
    static_assert(std::is_standard_layout_v<CSample>);
    EXPECT_EQ(0 * sizeof(double), offsetof(CSample, _min));
    EXPECT_EQ(1 * sizeof(double), offsetof(CSample, _max));
    EXPECT_EQ(2 * sizeof(double), offsetof(CSample, _avg));
    EXPECT_EQ(3 * sizeof(double), offsetof(CSample, _actual));
    EXPECT_EQ(4 * sizeof(double), offsetof(CSample, _sum));
    EXPECT_EQ(5 * sizeof(double), sizeof(CSample));
}

TEST(sample, copies_as_five_plain_doubles)
{
    static_assert(std::is_trivially_copyable_v<CSample>);
    CSample sample;
    sample._min = 1.0;
    sample._sum = 5.0;
    CSample copy = sample;
    sample._min = 9.0;
    EXPECT_EQ(1.0, *copy._min);
    EXPECT_FALSE(copy._max);
    EXPECT_FALSE(copy._avg);
    EXPECT_FALSE(copy._actual);
    EXPECT_EQ(5.0, *copy._sum);

    copy = CSample();
    EXPECT_FALSE(copy._min);
}

TEST(snapshot, has_the_platform_types)
{
    static_assert(std::is_same_v<decltype(CSnapshot::_period), unsigned long>);
    static_assert(std::is_same_v<decltype(CSnapshot::_time), time_t>);
    static_assert(std::is_same_v<decltype(CSnapshot::_percent_valid), double>);
    static_assert(std::is_same_v<decltype(CSnapshot::_samples), std::vector<CSample>>);
}

TEST(snapshot, is_blank_and_empty_by_default)
{
    const CSnapshot snapshot;
    EXPECT_EQ(0u, snapshot._period);
    EXPECT_EQ(0, snapshot._time);
    EXPECT_EQ(0.0, snapshot._percent_valid);
    EXPECT_TRUE(snapshot._samples.empty());
}

TEST(snapshot, copies_its_samples_one_by_one)
{
    CSnapshot snapshot;
    snapshot._period = 15;
    snapshot._time = 900;
    snapshot._percent_valid = 50.0;
    snapshot._samples.resize(2);
    snapshot._samples[1]._avg = 3.0;

    const CSnapshot copy = snapshot;
    CSnapshot assigned;
    assigned = snapshot;
    snapshot._samples[1]._avg = 4.0;

    for (const CSnapshot* one : {&copy, static_cast<const CSnapshot*>(&assigned)}) {
        EXPECT_EQ(15u, one->_period);
        EXPECT_EQ(900, one->_time);
        EXPECT_EQ(50.0, one->_percent_valid);
        ASSERT_EQ(2u, one->_samples.size());
        EXPECT_FALSE(one->_samples[0]._avg);
        EXPECT_EQ(3.0, *one->_samples[1]._avg);
    }
}

// Devices ----------------------------------------------------------------------------------------

TEST(device_properties, are_those_of_no_stored_device_by_default)
{
    const CDeviceProperties device;
    EXPECT_EQ("", device._path);
    EXPECT_EQ("", device._guid);
    EXPECT_EQ(-1, device._index);
}

TEST(device_properties, have_a_64_bit_signed_identifier)
{
    static_assert(std::is_same_v<decltype(CDeviceProperties::_index), int64_t>);
    static_assert(std::is_same_v<decltype(CDeviceProperties::_path), tk_string>);
    static_assert(std::is_same_v<decltype(CDeviceProperties::_guid), tk_string>);
}

TEST(device_properties, have_no_order)
{
    static_assert(!any_ordering<CDeviceProperties, CDeviceProperties>);
}

TEST(device_properties, copy_member_by_member_with_texts_of_their_own)
{
    CDeviceProperties device;
    device._path = "plant/pump";
    device._guid = "6f1c";
    device._index = 7;

    const CDeviceProperties copy = device;
    CDeviceProperties assigned;
    assigned = device;
    device._path[0] = 'X';
    device._guid.clear();

    for (const CDeviceProperties* one : {&copy, static_cast<const CDeviceProperties*>(&assigned)}) {
        EXPECT_EQ("plant/pump", one->_path);
        EXPECT_EQ("6f1c", one->_guid);
        EXPECT_EQ(7, one->_index);
    }
}

// Periods ----------------------------------------------------------------------------------------

TEST(period_properties, are_0_and_0_by_default)
{
    const CPeriodProperties period;
    EXPECT_EQ(0u, period._period);
    EXPECT_EQ(0u, period._max_entries);
}

TEST(period_properties, are_made_from_period_and_row_count)
{
    static_assert(std::is_same_v<decltype(CPeriodProperties::_period), unsigned long>);
    static_assert(std::is_same_v<decltype(CPeriodProperties::_max_entries), size_t>);
    const CPeriodProperties period(15, 96);
    EXPECT_EQ(15u, period._period);
    EXPECT_EQ(96u, period._max_entries);
}

TEST(period_properties, sort_from_the_finest_on)
{
    std::vector<CPeriodProperties> periods = {{15, 96}, {1, 1440}, {1440, 30}};
    std::sort(periods.begin(), periods.end());
    EXPECT_EQ(1u, periods[0]._period);
    EXPECT_EQ(15u, periods[1]._period);
    EXPECT_EQ(1440u, periods[2]._period);
    EXPECT_EQ(96u, periods[1]._max_entries);
}

TEST(period_properties, of_one_length_are_equivalent_whatever_they_keep)
{
    const CPeriodProperties few(15, 10);
    const CPeriodProperties many(15, 1000);
    EXPECT_FALSE(few < many);
    EXPECT_FALSE(many < few);
}

TEST(period_properties, compare_as_unsigned_numbers)
{
    const CPeriodProperties shortest(1, 5);
    for (const unsigned long length :
         {0x7ffffffful, 0x80000000ul, 0xfffffffful, std::numeric_limits<unsigned long>::max()}) {
        EXPECT_TRUE(shortest < CPeriodProperties(length, 1)) << length;
        EXPECT_FALSE(CPeriodProperties(length, 1) < shortest) << length;
    }
}

// Parameters -------------------------------------------------------------------------------------

TEST(param_properties, are_an_ordinary_value_of_which_nothing_is_kept_by_default)
{
    const CParamProperties props;
    EXPECT_EQ("", props._path);
    EXPECT_EQ(SAMPLE_TYPE_VALUE, props._type);
    EXPECT_FALSE(props._has_min);
    EXPECT_FALSE(props._has_max);
    EXPECT_FALSE(props._has_avg);
    EXPECT_FALSE(props._has_actual);
    EXPECT_FALSE(props._has_sum);
    EXPECT_EQ(-1, props._index);
}

TEST(param_properties, have_a_64_bit_signed_identifier)
{
    static_assert(std::is_same_v<decltype(CParamProperties::_index), int64_t>);
    static_assert(std::is_same_v<decltype(CParamProperties::_path), tk_string>);
    static_assert(std::is_same_v<decltype(CParamProperties::_type), sample_type_t>);
}

TEST(param_properties, compare_by_identifier_alone)
{
    CParamProperties a = param(4);
    CParamProperties b = param(4);
    a._path = "a";
    b._path = "b";
    b._type = SAMPLE_TYPE_PF;
    b._has_min = b._has_max = b._has_avg = b._has_actual = b._has_sum = true;
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);

    a._index = 5;
    EXPECT_TRUE(b < a);
    EXPECT_FALSE(a < b);
}

TEST(param_properties, compare_as_signed_64_bit_numbers)
{
    EXPECT_TRUE(param(-1) < param(0));
    EXPECT_FALSE(param(0) < param(-1));
    // The low halves of the first two are equal, those of the next two stand the other way round.
    EXPECT_TRUE(param(1) < param(int64_t(1) + (int64_t(1) << 32)));
    EXPECT_TRUE(param(9) < param(int64_t(1) << 32));
    EXPECT_TRUE(param(std::numeric_limits<int64_t>::min()) <
                param(std::numeric_limits<int64_t>::max()));
}

TEST(param_properties, out_of_order_count_as_unsorted)
{
    const std::vector<CParamProperties> params = {param(5), param(2)};
    EXPECT_FALSE(std::is_sorted(params.begin(), params.end()));
}

TEST(param_properties, sort_with_those_not_stored_first)
{
    std::vector<CParamProperties> params = {param(2), param(0), param(-1), param(1)};
    std::sort(params.begin(), params.end());
    for (size_t i = 0; i < params.size(); ++i)
        EXPECT_EQ(int64_t(i) - 1, params[i]._index);
}

TEST(param_properties, differ_as_sets_by_identifier)
{
    std::vector<CParamProperties> all = {param(1), param(2), param(3)};
    std::vector<CParamProperties> gone = {param(2)};
    all[1]._path = "stored";
    gone[0]._path = "asked for";

    std::vector<CParamProperties> left;
    std::set_difference(all.begin(), all.end(), gone.begin(), gone.end(), std::back_inserter(left));
    ASSERT_EQ(2u, left.size());
    EXPECT_EQ(1, left[0]._index);
    EXPECT_EQ(3, left[1]._index);
}

TEST(param_properties, copy_member_by_member_with_texts_of_their_own)
{
    CParamProperties props = param(3);
    props._path = "power/factor";
    props._type = SAMPLE_TYPE_PF;
    props._has_max = true;
    props._has_sum = true;

    const CParamProperties copy = props;
    CParamProperties assigned;
    assigned = props;
    props._path[0] = 'X';

    for (const CParamProperties* one : {&copy, static_cast<const CParamProperties*>(&assigned)}) {
        EXPECT_EQ("power/factor", one->_path);
        EXPECT_EQ(SAMPLE_TYPE_PF, one->_type);
        EXPECT_FALSE(one->_has_min);
        EXPECT_TRUE(one->_has_max);
        EXPECT_FALSE(one->_has_avg);
        EXPECT_FALSE(one->_has_actual);
        EXPECT_TRUE(one->_has_sum);
        EXPECT_EQ(3, one->_index);
    }
}

TEST(sample_type, has_the_stored_numbers)
{
    static_assert(SAMPLE_TYPE_VALUE == 0);
    static_assert(SAMPLE_TYPE_PF == 1);
    static_assert(SAMPLE_TYPE_LISTEND == 2);
}

TEST(sample_type, can_hold_a_number_that_is_no_type)
{
    static_assert(std::is_same_v<std::underlying_type_t<sample_type_t>, int>);
    EXPECT_EQ(-5, static_cast<int>(static_cast<sample_type_t>(-5)));
}

TEST(sample_type, selects_the_family_of_aggregate_functions)
{
    EXPECT_STREQ("", operation_prefix(SAMPLE_TYPE_VALUE));
    EXPECT_STREQ("pf", operation_prefix(SAMPLE_TYPE_PF));
}

TEST(sample_type, stops_when_no_type_is_asked_for_its_functions)
{
    EXPECT_STOPS(operation_prefix(SAMPLE_TYPE_LISTEND), "false");
    EXPECT_STOPS(operation_prefix(static_cast<sample_type_t>(-1)), "false");
}

// What calls take and return ---------------------------------------------------------------------

TEST(device_params, name_no_device_and_no_parameter_by_default)
{
    const CDeviceParams data;
    EXPECT_EQ(-1, data._device._index);
    EXPECT_TRUE(data._params.empty());
}

TEST(device_data, serves_as_the_device_and_parameters_of_another_call)
{
    static_assert(std::is_convertible_v<CDeviceData*, CDeviceParams*>);
    CDeviceData data;
    data._device._index = 3;
    data._params = {param(8)};
    data._snapshots.resize(2);

    const CDeviceParams& request = data;
    EXPECT_EQ(3, request._device._index);
    ASSERT_EQ(1u, request._params.size());
    EXPECT_EQ(8, request._params[0]._index);

    CDeviceData other;
    static_cast<CDeviceParams&>(other) = request;
    EXPECT_EQ(3, other._device._index);
    EXPECT_TRUE(other._snapshots.empty());
}

TEST(device_data, copies_all_of_its_parts)
{
    CDeviceData data;
    data._device._path = "pump";
    data._params = {param(8)};
    data._snapshots.resize(1);
    data._snapshots[0]._time = 60;

    const CDeviceData copy = data;
    data._device._path.clear();
    data._params.clear();
    data._snapshots[0]._time = 0;
    EXPECT_EQ("pump", copy._device._path);
    ASSERT_EQ(1u, copy._params.size());
    ASSERT_EQ(1u, copy._snapshots.size());
    EXPECT_EQ(60, copy._snapshots[0]._time);
}

TEST(names, of_text_and_time_range_are_known_in_every_namespace)
{
    static_assert(std::is_same_v<::tk_string, std::string>);
    static_assert(std::is_same_v<toolkit::tk_string, ::tk_string>);
    static_assert(std::is_same_v<toolkit::trend::tk_string, ::tk_string>);
    static_assert(std::is_same_v<::timebounds_t, std::pair<time_t, time_t>>);
    static_assert(std::is_same_v<toolkit::timebounds_t, ::timebounds_t>);
    static_assert(std::is_same_v<toolkit::trend::timebounds_t, ::timebounds_t>);
}
