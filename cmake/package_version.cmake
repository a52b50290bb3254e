# Derives the Debian package version from the version text that the binaries carry
# (generated/version_text.h, "YYYY-MM-DD-RRRRRRR-TTTTTTTT") and writes, into OUTPUT_DIR:
#   debian-version.txt  0.YYYYMMDD+git.RRRRRRR.TTTTTTTT
#   changelog.gz        the package's changelog entry for that version
# Debian versions must start with a digit and may not hold a dash without a Debian revision; the
# date leads so that newer builds sort higher, the revision and the tree state follow as they are.
# Run as: cmake -DHEADER=... -DOUTPUT_DIR=... -DMAINTAINER=... -P package_version.cmake
file(READ "${HEADER}" header)
if(NOT header MATCHES "\"([0-9][0-9][0-9][0-9])-([0-9][0-9])-([0-9][0-9])-([0-9a-f]+)-([0-9a-f]+)\"")
  message(FATAL_ERROR "No version text in ${HEADER}")
endif()
set(text "${CMAKE_MATCH_1}-${CMAKE_MATCH_2}-${CMAKE_MATCH_3}-${CMAKE_MATCH_4}-${CMAKE_MATCH_5}")
set(version "0.${CMAKE_MATCH_1}${CMAKE_MATCH_2}${CMAKE_MATCH_3}+git.${CMAKE_MATCH_4}.${CMAKE_MATCH_5}")

# Rewritten only when the version changes, so that a rebuild leaves the files (and their
# dates) alone.
if(EXISTS "${OUTPUT_DIR}/debian-version.txt" AND EXISTS "${OUTPUT_DIR}/changelog.gz")
  file(READ "${OUTPUT_DIR}/debian-version.txt" old)
  if(old STREQUAL "${version}\n")
    return()
  endif()
endif()
file(MAKE_DIRECTORY "${OUTPUT_DIR}")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${OUTPUT_DIR}/changelog"
  "drover (${version}) unstable; urgency=medium\n\n"
  "  * Build of drover version ${text}.\n\n"
  " -- ${MAINTAINER}  ${date}\n")
# -n: no name or time stamp in the gzip header, as Debian wants for reproducible files.
execute_process(COMMAND gzip -9nf "${OUTPUT_DIR}/changelog" RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "gzip failed on ${OUTPUT_DIR}/changelog")
endif()
file(WRITE "${OUTPUT_DIR}/debian-version.txt" "${version}\n")
