# Install-time script: installs the systemd unit with ExecStart pointing at
# the binary's real location. Expects QLC_UNIT_SOURCE, QLC_UNIT_STAGING,
# QLC_UNIT_SBINDIR (relative to the prefix, or absolute) and QLC_UNIT_DIR
# (likewise).

set(sbindir "${QLC_UNIT_SBINDIR}")
if(NOT IS_ABSOLUTE "${sbindir}")
    set(sbindir "${CMAKE_INSTALL_PREFIX}/${sbindir}")
endif()
set(unitdir "${QLC_UNIT_DIR}")
if(NOT IS_ABSOLUTE "${unitdir}")
    set(unitdir "${CMAKE_INSTALL_PREFIX}/${unitdir}")
endif()

file(READ "${QLC_UNIT_SOURCE}" unit)
string(REPLACE "ExecStart=/usr/sbin/qirn-log-converter"
               "ExecStart=${sbindir}/qirn-log-converter" unit "${unit}")

# One staging file per destination, so that installs into different places
# can run at the same time.
string(MD5 tag "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}|${sbindir}")
set(staged "${QLC_UNIT_STAGING}/${tag}/qirn-log-converter.service")
file(WRITE "${staged}" "${unit}")
file(INSTALL DESTINATION "${unitdir}" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES "${staged}")
file(REMOVE_RECURSE "${QLC_UNIT_STAGING}/${tag}")
