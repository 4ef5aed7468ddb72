# Install-time script: installs one configuration file. Expects
# QLC_CONFIG_SOURCE, QLC_CONFIG_NAME (its installed name), QLC_CONFIG_SUBDIR
# (below the configuration directory), QLC_CONFIG_PERMISSIONS and
# QLC_CONFIG_SYSCONFDIR (absolute, or empty: by the prefix).

if(QLC_CONFIG_SYSCONFDIR)
    set(etc "${QLC_CONFIG_SYSCONFDIR}")
else()
    # The prefix of this install, which `cmake --install --prefix` sets.
    string(REGEX REPLACE "/+$" "" prefix "${CMAKE_INSTALL_PREFIX}")
    if(prefix STREQUAL "" OR prefix STREQUAL "/usr")
        set(etc "/etc")
    else()
        set(etc "${prefix}/etc")
    endif()
endif()
file(INSTALL DESTINATION "${etc}/${QLC_CONFIG_SUBDIR}" TYPE FILE
     PERMISSIONS ${QLC_CONFIG_PERMISSIONS}
     RENAME "${QLC_CONFIG_NAME}"
     FILES "${QLC_CONFIG_SOURCE}")
