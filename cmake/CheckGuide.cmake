# cmake -DGUIDE=file.md -DEXAMPLES=folder -P CheckGuide.cmake
#
# Every program in the guide must be one of the examples, whole and to the letter.

file(READ ${GUIDE} guide)
string(REPLACE ";" "\\;" guide "${guide}")
string(REGEX MATCHALL "```cpp\n" blocks "${guide}")
list(LENGTH blocks in_guide)

set(found 0)
file(GLOB examples ${EXAMPLES}/*.cpp)
foreach(example IN LISTS examples)
  file(READ ${example} text)
  string(REPLACE ";" "\\;" text "${text}")
  string(FIND "${guide}" "```cpp\n${text}```\n" place)
  if(place GREATER -1)
    math(EXPR found "${found} + 1")
  endif()
endforeach()

if(in_guide EQUAL 0 OR NOT found EQUAL in_guide)
  message(FATAL_ERROR "${GUIDE} has ${in_guide} programs, ${found} of them are examples")
endif()
message(STATUS "${GUIDE}: all of its ${found} programs are examples")
