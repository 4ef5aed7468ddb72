# Install-time script: installs one systemd unit with ExecStart pointing at
# the binary's real location. Expects QLC_UNIT_SOURCE, QLC_UNIT_STAGING,
# QLC_UNIT_BINDIR and QLC_UNIT_SBINDIR (relative to the prefix, or absolute)
# and QLC_UNIT_DIR (likewise).

function(qlc_absolute out dir)
    if(NOT IS_ABSOLUTE "${dir}")
        set(dir "${CMAKE_INSTALL_PREFIX}/${dir}")
    endif()
    set(${out} "${dir}" PARENT_SCOPE)
endfunction()
qlc_absolute(bindir "${QLC_UNIT_BINDIR}")
qlc_absolute(sbindir "${QLC_UNIT_SBINDIR}")
qlc_absolute(unitdir "${QLC_UNIT_DIR}")

# Units are written for the /usr layout; ExecStart lines follow the prefix.
file(READ "${QLC_UNIT_SOURCE}" unit)
string(REPLACE "ExecStart=/usr/sbin/" "ExecStart=${sbindir}/" unit "${unit}")
string(REPLACE "ExecStart=/usr/bin/" "ExecStart=${bindir}/" unit "${unit}")
# A unit that runs its program from a shell line names it after "exec ".
string(REPLACE "exec /usr/bin/" "exec ${bindir}/" unit "${unit}")

# One staging file per destination, so that installs into different places
# can run at the same time.
get_filename_component(name "${QLC_UNIT_SOURCE}" NAME)
string(MD5 tag "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}|${sbindir}|${name}")
set(staged "${QLC_UNIT_STAGING}/${tag}/${name}")
file(WRITE "${staged}" "${unit}")
file(INSTALL DESTINATION "${unitdir}" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES "${staged}")
file(REMOVE_RECURSE "${QLC_UNIT_STAGING}/${tag}")
