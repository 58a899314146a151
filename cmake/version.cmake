# Writes Version.h, with the commit in the version, and only if that has changed.
#   cmake -DSOURCE=FOLDER -DVERSION=1.0.0 -DHEADER=FILE -P version.cmake
# "1.0.0+gCOMMIT" in a clone, followed by "-dirty" if a tracked file was changed; "1.0.0+unknown" in sources that are
# not a clone.
function(git_says result)
    # Without git's index lock, which another process may need.
    execute_process(COMMAND git --no-optional-locks -C "${SOURCE}" ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE words
                    ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT status EQUAL 0)
        set(words NOTFOUND)
    endif()
    set(${result} "${words}" PARENT_SCOPE)
endfunction()

set(commit unknown)
# The sources may lie within a clone of something else.
git_says(inside rev-parse --show-prefix)
if("${inside}" STREQUAL "")
    git_says(head rev-parse --verify HEAD)
    git_says(changes status --porcelain --untracked-files=no)
    if(head)
        string(SUBSTRING "${head}" 0 10 commit)
        set(commit "g${commit}")
        if(NOT changes STREQUAL "")
            string(APPEND commit "-dirty")
        endif()
    endif()
endif()

set(content "// Made by the build.\n#define FC_VERSION \"${VERSION}+${commit}\"\n")
set(before "")
if(EXISTS "${HEADER}")
    file(READ "${HEADER}" before)
endif()
if(NOT content STREQUAL before)
    file(WRITE "${HEADER}" "${content}")
endif()
