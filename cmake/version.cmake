# Writes the 27-character version text: YYYY-MM-DD-<7 hex of the revision>-<8 hex of the tree state>.
# The tail is the start of the SHA-256 of the uncommitted changes ("00000000" for a clean tree), so
# two builds of one revision with different local edits tell themselves apart.
string(TIMESTAMP date "%Y-%m-%d" UTC)
set(revision "0000000")
set(tail "00000000")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND "${GIT_EXECUTABLE}" rev-parse --short=7 HEAD
    WORKING_DIRECTORY "${SOURCE_DIR}" OUTPUT_VARIABLE head RESULT_VARIABLE failed
    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT failed AND head MATCHES "^[0-9a-f]+$")
    string(SUBSTRING "${head}" 0 7 revision)
    execute_process(COMMAND "${GIT_EXECUTABLE}" diff HEAD
      WORKING_DIRECTORY "${SOURCE_DIR}" OUTPUT_VARIABLE changes ERROR_QUIET)
    if(NOT changes STREQUAL "")
      string(SHA256 digest "${changes}")
      string(SUBSTRING "${digest}" 0 8 tail)
    endif()
  endif()
endif()
set(text "${date}-${revision}-${tail}")
set(content "#pragma once\n#define DROVER_VERSION_TEXT \"${text}\"\n")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
endif()
if(NOT old STREQUAL content)
  file(WRITE "${OUTPUT}" "${content}")
endif()
