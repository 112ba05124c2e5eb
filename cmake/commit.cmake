# SPDX-License-Identifier: GPL-2.0
# Run at each build: writes the commit of SOURCE into HEADER, if it is another one than there. COMMIT, if it is set, is
# what a build without a repository gives.
set(commit "${COMMIT}")
if(NOT commit AND EXISTS ${SOURCE}/.git)
  # Packages may be built by another user than the one whose tree it is.
  execute_process(COMMAND git -c safe.directory=${SOURCE} -C ${SOURCE} describe --always --dirty --abbrev=12 --exclude=*
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT commit)
  set(commit unknown)
endif()
set(text "#define TARN_COMMIT \"${commit}\"\n")
set(there "")
if(EXISTS ${HEADER})
  file(READ ${HEADER} there)
endif()
if(NOT text STREQUAL there)
  file(WRITE ${HEADER} "${text}")
endif()
