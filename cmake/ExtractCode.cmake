# Writes the first "```c" block of a document to a source file:
#   cmake -DDOCUMENT=page.md -DSOURCE=host.c -P ExtractCode.cmake
file(READ "${DOCUMENT}" text)
set(opening "\n```c\n")
set(closing "\n```\n")

string(FIND "${text}" "${opening}" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT}: no block of C code")
endif()
string(LENGTH "${opening}" fence)
math(EXPR at "${at} + ${fence}")
string(SUBSTRING "${text}" ${at} -1 text)
string(FIND "${text}" "${closing}" end)
if(end EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT}: the block of C code has no end")
endif()
string(SUBSTRING "${text}" 0 ${end} code)
file(WRITE "${SOURCE}" "${code}\n")
