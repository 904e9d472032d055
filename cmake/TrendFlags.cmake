# Compiler and linker flags, and the questions about the target that decide them.

include(CheckCXXSourceCompiles)

# True where time_t has 32 bits unless 64 are asked for.
check_cxx_source_compiles("
    #include <ctime>
    static_assert(sizeof(std::time_t) == 4, \"\");
    int main() {}" TREND_TIME_T_IS_32)

# False where the compiler computes doubles in wider registers (the x87 of 32-bit PCs).
check_cxx_source_compiles("
    #include <cfloat>
    static_assert(FLT_EVAL_METHOD == 0, \"\");
    int main() {}" TREND_DOUBLES_ROUND_ONCE)

# What everything that is built here shares: the language, and the developers' checks.
function(trend_flags target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  if(TREND_DEVELOPER)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
    target_compile_definitions(${target} PRIVATE TREND_CHECK_SIGNATURES)
  endif()
  if(TREND_SANITIZE)
    set(sanitize -fsanitize=address,undefined -fno-sanitize-recover=all)
    target_compile_options(${target} PRIVATE ${sanitize} -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE ${sanitize})
  endif()
  if(TREND_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-abs-path -fprofile-update=atomic)
    target_compile_definitions(${target} PRIVATE TREND_COVERAGE)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

# What the library's sources need besides: stored numbers must not depend on the machine, so each
# operation rounds once. The one fused multiply-add that is meant is written out as std::fma.
function(trend_library_flags target)
  trend_flags(${target})
  target_compile_options(${target} PRIVATE -ffp-contract=off)
  if(NOT TREND_DOUBLES_ROUND_ONCE)
    target_compile_options(${target} PRIVATE -msse2 -mfpmath=sse)
  endif()
  # The width of time_t is part of the interface, so a host gets it with the library.
  if(TREND_TIME64 AND TREND_TIME_T_IS_32)
    target_compile_definitions(${target} PUBLIC _TIME_BITS=64 _FILE_OFFSET_BITS=64)
  endif()
endfunction()
