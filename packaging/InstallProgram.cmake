# Install-time script: installs one script program into QLC_PROGRAM_DIR
# (relative to the prefix, or absolute) with the lines that name its installed
# files following the prefix. Expects QLC_PROGRAM_SOURCE, QLC_PROGRAM_DIR,
# QLC_PROGRAM_STAGING, QLC_PROGRAM_SYSCONFDIR (as QLC_CONFIG_SYSCONFDIR of
# InstallConfig.cmake) and QLC_PROGRAM_LINES: pairs of whole lines, as
# written for the prefix /usr and as they should read, where @PREFIX@ and
# @SYSCONFDIR@ stand for this install's directories.

string(REGEX REPLACE "/+$" "" prefix "${CMAKE_INSTALL_PREFIX}")
if(QLC_PROGRAM_SYSCONFDIR)
    set(etc "${QLC_PROGRAM_SYSCONFDIR}")
elseif(prefix STREQUAL "" OR prefix STREQUAL "/usr")
    set(etc "/etc")
else()
    set(etc "${prefix}/etc")
endif()
set(dir "${QLC_PROGRAM_DIR}")
if(NOT IS_ABSOLUTE "${dir}")
    set(dir "${CMAKE_INSTALL_PREFIX}/${dir}")
endif()

file(READ "${QLC_PROGRAM_SOURCE}" text)
set(lines ${QLC_PROGRAM_LINES})
list(LENGTH lines count)
set(index 0)
while(index LESS count)
    list(GET lines ${index} from)
    math(EXPR index "${index} + 1")
    list(GET lines ${index} to)
    math(EXPR index "${index} + 1")
    string(REPLACE "@PREFIX@" "${prefix}" to "${to}")
    string(REPLACE "@SYSCONFDIR@" "${etc}" to "${to}")
    string(REPLACE "\n${from}\n" "\n${to}\n" text "${text}")
endwhile()

get_filename_component(name "${QLC_PROGRAM_SOURCE}" NAME)
string(MD5 tag "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}|${dir}|${name}")
set(staged "${QLC_PROGRAM_STAGING}/${tag}/${name}")
file(WRITE "${staged}" "${text}")
file(INSTALL DESTINATION "${dir}" TYPE PROGRAM FILES "${staged}")
file(REMOVE_RECURSE "${QLC_PROGRAM_STAGING}/${tag}")
