# Runs at install time, when the prefix is finally known (cmake --install
# --prefix, DESTDIR, CPack): the unit names the installed zemctl and the
# environment file by their full paths. The configuration goes to
# /etc/zemlanhb, where the programs read it, only for the system's own
# prefix /usr (the package); elsewhere it stays an example to copy.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZEM_SYSCONFDIR /etc)
else()
  set(ZEM_SYSCONFDIR ${CMAKE_INSTALL_PREFIX}/etc)
endif()
set(ZEM_SBINDIR ${CMAKE_INSTALL_PREFIX}/${ZEM_SBIN_REL})
foreach(unit zemlanhb zemlanhb-notify)
  configure_file(${ZEM_DIST_SRC}/${unit}.service.in ${ZEM_DIST_BIN}/${unit}.service @ONLY)
  file(INSTALL DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system TYPE FILE
       FILES ${ZEM_DIST_BIN}/${unit}.service)
endforeach()
file(INSTALL DESTINATION ${ZEM_SYSCONFDIR}/default TYPE FILE RENAME zemlanhb
     FILES ${ZEM_DIST_SRC}/zemlanhb.default)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(INSTALL DESTINATION /etc/zemlanhb TYPE FILE FILES ${ZEM_DIST_SRC}/../examples/cluster.xml
       ${ZEM_DIST_SRC}/local.xml)
endif()
