# Writes the first block of a document in a language, "```c" unless LANGUAGE names another, to a
# source file:
#   cmake -DDOCUMENT=page.md -DSOURCE=host.c [-DLANGUAGE=cmake] -P ExtractCode.cmake
if(NOT LANGUAGE)
  set(LANGUAGE c)
endif()
file(READ "${DOCUMENT}" text)
set(opening "\n```${LANGUAGE}\n")
set(closing "\n```\n")

string(FIND "${text}" "${opening}" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT}: no block of ${LANGUAGE}")
endif()
string(LENGTH "${opening}" fence)
math(EXPR at "${at} + ${fence}")
string(SUBSTRING "${text}" ${at} -1 text)
string(FIND "${text}" "${closing}" end)
if(end EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT}: the block of ${LANGUAGE} has no end")
endif()
string(SUBSTRING "${text}" 0 ${end} code)
file(WRITE "${SOURCE}" "${code}\n")
