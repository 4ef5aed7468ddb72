# Install-time script: installs the systemd unit with ExecStart pointing at
# the binary's real location. Expects QLC_UNIT_SOURCE, QLC_UNIT_STAGING,
# QLC_UNIT_SBINDIR (relative to the prefix, or absolute) and QLC_UNIT_DIR
# (likewise). For a unit that runs another program, QLC_UNIT_PROGRAM names the
# path written in the source unit and QLC_UNIT_PROGRAM_PREFIX the text before
# it (defaults: /usr/sbin/qirn-log-converter after "ExecStart=").

set(sbindir "${QLC_UNIT_SBINDIR}")
if(NOT IS_ABSOLUTE "${sbindir}")
    set(sbindir "${CMAKE_INSTALL_PREFIX}/${sbindir}")
endif()
set(unitdir "${QLC_UNIT_DIR}")
if(NOT IS_ABSOLUTE "${unitdir}")
    set(unitdir "${CMAKE_INSTALL_PREFIX}/${unitdir}")
endif()

if(NOT DEFINED QLC_UNIT_PROGRAM)
    set(QLC_UNIT_PROGRAM "/usr/sbin/qirn-log-converter")
endif()
if(NOT DEFINED QLC_UNIT_PROGRAM_PREFIX)
    set(QLC_UNIT_PROGRAM_PREFIX "ExecStart=")
endif()
get_filename_component(program "${QLC_UNIT_PROGRAM}" NAME)
get_filename_component(unitname "${QLC_UNIT_SOURCE}" NAME)

file(READ "${QLC_UNIT_SOURCE}" unit)
string(REPLACE "${QLC_UNIT_PROGRAM_PREFIX}${QLC_UNIT_PROGRAM}"
               "${QLC_UNIT_PROGRAM_PREFIX}${sbindir}/${program}" unit "${unit}")

# One staging file per destination, so that installs into different places
# can run at the same time.
string(MD5 tag "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}|${sbindir}")
set(staged "${QLC_UNIT_STAGING}/${tag}/${unitname}")
file(WRITE "${staged}" "${unit}")
file(INSTALL DESTINATION "${unitdir}" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES "${staged}")
file(REMOVE_RECURSE "${QLC_UNIT_STAGING}/${tag}")
