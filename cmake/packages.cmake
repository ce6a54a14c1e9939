# Services of what is installed, and Debian packages of it, by CPack: kestreld, kestreld-tools and kestreld-bench are
# the components daemon, tools and bench. What only a package has is left out of a plain "cmake --install".
set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(KESTREL_MAINTAINER "The kestreld authors <maintainers@kestreld.invalid>" CACHE STRING
  "Who answers for the Debian packages")
set(KESTREL_PACKAGE_REVISION 1 CACHE STRING "What follows the version in the Debian packages' versions")

# A version stands in these, too, as their own communities have it.
set(named_in_debian/changelog "kestreld (${PROJECT_VERSION}-")
set(named_in_buildroot/package/kestreld/kestreld.mk "KESTRELD_VERSION = ${PROJECT_VERSION}\n")
foreach(file debian/changelog buildroot/package/kestreld/kestreld.mk)
  file(READ ${packaging}/${file} text)
  string(FIND "${text}" "${named_in_${file}}" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "packaging/${file} is of another version than ${PROJECT_VERSION}: bring it up to date.")
  endif()
endforeach()
if(NOT EXISTS ${packaging}/yocto/recipes-connectivity/kestreld/kestreld_${PROJECT_VERSION}.bb)
  message(FATAL_ERROR "packaging/yocto has no recipe kestreld_${PROJECT_VERSION}.bb: rename the one that is there.")
endif()

# kestrel_service(NAME COMPONENT): a systemd unit, whose program is where the installation's prefix says.
function(kestrel_service name component)
  install(CODE "
    file(READ ${packaging}/systemd/${name}.service unit)
    string(REGEX REPLACE \"(\\nExecStart=)/usr/\" \"\\\\1\${CMAKE_INSTALL_PREFIX}/\" unit \"\${unit}\")
    file(WRITE ${PROJECT_BINARY_DIR}/packaging/${name}.service \"\${unit}\")
    " COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/packaging/${name}.service
    DESTINATION lib/systemd/system COMPONENT ${component})
endfunction()
kestrel_service(kestreld daemon)
kestrel_service(skyport bench)

# kestrel_in_package(COMPONENT FILE DESTINATION NAME MODE...)
function(kestrel_in_package component file destination name)
  install(FILES ${packaging}/${file} DESTINATION ${destination} RENAME ${name} PERMISSIONS ${ARGN}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()
set(own OWNER_READ OWNER_WRITE)
set(plain ${own} GROUP_READ WORLD_READ)
set(program ${plain} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
kestrel_in_package(daemon sysv/kestreld /etc/init.d kestreld ${program})
kestrel_in_package(bench debian/skyport.default /etc/default skyport ${plain})
kestrel_in_package(bench debian/skyport.accounts /etc/skyport accounts ${own})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestreld)
set(CPACK_PACKAGE_VENDOR "The kestreld authors")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL daemon tools bench)
set(CPACK_STRIP_FILES ON)
# The packages' own prefix, whatever this build's is; absolute destinations take the second line.
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${program})
set(CPACK_PRE_BUILD_SCRIPTS ${packaging}/debian/stage.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KESTREL_PACKAGE_REVISION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KESTREL_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/host)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# debian_package(COMPONENT NAME SECTION SUMMARY TEXT)
macro(debian_package component name section summary text)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${text}")
  file(GLOB CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA ${packaging}/debian/${name}/*)
  kestrel_in_package(${component} debian/${name}.lintian-overrides /usr/share/lintian/overrides ${name} ${plain})
endmacro()
debian_package(daemon kestreld net "remote access of a network camera"
"Makes a camera reachable from the internet through its remote-access
service: opens a port of the home router by UPnP, has the service test it,
registers the result and keeps it current. Answers the tools that find
cameras on the local network.
.
With libraries that stand for a camera's on an ordinary Linux machine.")
debian_package(tools kestreld-tools net "find cameras on the network, and read their logs"
"kestrel-find finds cameras on the local network and changes a few settings,
kestrel-decode shows what they say to their remote-access service, and
kestrel-explain tells from a camera's log why it is off line. With a
dissector for Wireshark.")
debian_package(bench kestreld-bench net "bench service for network cameras"
"Does for a camera what its remote-access service does, on one machine, with
every exchange laid open and with faults on request; and plays cameras by the
thousand against such a service.")
# The daemon takes a changed domain by killall.
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS psmisc)
# invoke-rc.d's --skip-systemd-native, from the first step of an installation on.
set(CPACK_DEBIAN_DAEMON_PACKAGE_PREDEPENDS "init-system-helpers (>= 1.54~)")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS kestreld-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "wireshark, bash-completion")
set(CPACK_DEBIAN_BENCH_PACKAGE_SUGGESTS "kestreld, bash-completion")
include(CPack)
