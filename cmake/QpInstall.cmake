# What `cmake --install` puts where: the library, the stand-ins (with
# QP_INSTALL_PLATFORM), headers, pkg-config and CMake package files, the
# hot-plug rule and unit, and the manual pages.
include(CMakePackageConfigHelpers)

set(QP_PLATFORM_LIBS qoracore qorasdk qorausb qoraprintergpl)
set(QP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qoraprinter)

# Installed libraries find their neighbours through RUNPATH $ORIGIN: the
# loader finds the stand-ins next to libqoraprinter.so.6 in any prefix, and
# so does the link editor when a caller links against it (it searches the
# DT_RUNPATH of a library for that library's own DT_NEEDED entries).
if(QP_INSTALL_PLATFORM)
  set_target_properties(qoraprinter ${QP_PLATFORM_LIBS} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${QP_PLATFORM_LIBS} EXPORT qoraprinterTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES platform/include/qoracore.h platform/include/qorasdk.h
                platform/include/qorausb.h platform/include/qoraprintergpl.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
else()
  # The appliance's own platform libraries and headers sit where the
  # compiler and loader look anyway: the exported target names the core
  # library by name and keeps the others private to the build.
  set_property(TARGET qoraprinter PROPERTY INTERFACE_LINK_LIBRARIES
               $<BUILD_INTERFACE:qoracore> $<INSTALL_INTERFACE:-lqoracore>)
  # Linked by name from the build's library directory, not by target, so
  # that the export does not ask for the stand-ins' own imported targets.
  set_property(TARGET qoraprinter PROPERTY LINK_LIBRARIES
               -L${CMAKE_LIBRARY_OUTPUT_DIRECTORY} -lqoracore -lqorasdk -lqorausb -lqoraprintergpl)
  add_dependencies(qoraprinter ${QP_PLATFORM_LIBS})
endif()
install(TARGETS qoraprinter EXPORT qoraprinterTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/qoraprinter.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The command finds the libraries from bin/ in a prefix of its own.
file(RELATIVE_PATH QP_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(qoraprinter-cli PROPERTIES INSTALL_RPATH "$ORIGIN/${QP_BIN_TO_LIB}")

# CMake package: find_package(qoraprinter CONFIG) -> qoraprinter::qoraprinter.
install(EXPORT qoraprinterTargets NAMESPACE qoraprinter:: DESTINATION ${QP_CMAKE_DIR})
configure_package_config_file(cmake/qoraprinterConfig.cmake.in
  ${CMAKE_BINARY_DIR}/qoraprinterConfig.cmake INSTALL_DESTINATION ${QP_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qoraprinterConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qoraprinterConfig.cmake ${CMAKE_BINARY_DIR}/qoraprinterConfigVersion.cmake
        DESTINATION ${QP_CMAKE_DIR})

# The .pc file finds the prefix from its own place, so it stays right when
# the tree is installed with `cmake --install --prefix` elsewhere.
file(RELATIVE_PATH QP_PC_PREFIX_REL ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(qoraprinter.pc.in ${CMAKE_BINARY_DIR}/qoraprinter.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qoraprinter.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Hot-plug: the udev rule hands USB printer nodes to a systemd template unit.
# Under the prefix that udev and systemd were built for, their own
# directories; elsewhere the same layout below the prefix.
find_package(PkgConfig QUIET)
# Relative defaults follow `cmake --install --prefix`.
set(QP_UDEV_DEFAULT lib/udev/rules.d)
set(QP_UNIT_DEFAULT lib/systemd/system)
if(PKG_CONFIG_FOUND)
  pkg_get_variable(QP_SYSTEMD_PREFIX systemd prefix)
  if(QP_SYSTEMD_PREFIX STREQUAL CMAKE_INSTALL_PREFIX)
    pkg_get_variable(QP_UNIT_PC systemd systemdsystemunitdir)
    if(QP_UNIT_PC)
      set(QP_UNIT_DEFAULT ${QP_UNIT_PC})
    endif()
  endif()
  pkg_get_variable(QP_UDEV_PREFIX udev prefix)
  if(QP_UDEV_PREFIX STREQUAL CMAKE_INSTALL_PREFIX)
    pkg_get_variable(QP_UDEV_PC udev udevdir)
    if(QP_UDEV_PC)
      set(QP_UDEV_DEFAULT ${QP_UDEV_PC}/rules.d)
    endif()
  endif()
endif()
set(QP_UDEV_RULES_DIR ${QP_UDEV_DEFAULT} CACHE STRING "Where the udev rule is installed (relative: below the prefix)")
set(QP_SYSTEMD_UNIT_DIR ${QP_UNIT_DEFAULT} CACHE STRING "Where the systemd units are installed (relative: below the prefix)")
set(QP_HOTPLUG_FILES 99-qoraprinter.rules qoraprinter-usb@.service)
set(QP_BINDIR ${CMAKE_INSTALL_FULL_BINDIR})
foreach(f ${QP_HOTPLUG_FILES})
  configure_file(data/${f}.in ${CMAKE_BINARY_DIR}/data/${f} @ONLY)
endforeach()
install(FILES ${CMAKE_BINARY_DIR}/data/99-qoraprinter.rules DESTINATION ${QP_UDEV_RULES_DIR})
install(FILES ${CMAKE_BINARY_DIR}/data/qoraprinter-usb@.service DESTINATION ${QP_SYSTEMD_UNIT_DIR})

# Manual pages: doc/NAME.N.scd becomes NAME.N in man section N when scdoc is
# there.
find_program(SCDOC scdoc)
if(SCDOC)
  file(GLOB QP_MAN_SRC CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/doc/*.scd)
  set(QP_MAN_PAGES)
  foreach(src ${QP_MAN_SRC})
    get_filename_component(page ${src} NAME_WLE)
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
    add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/man/${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
      COMMAND ${CMAKE_COMMAND} -DSCDOC=${SCDOC} -DIN=${src} -DOUT=${CMAKE_BINARY_DIR}/man/${page}
              -P ${PROJECT_SOURCE_DIR}/cmake/scdoc.cmake
      DEPENDS ${src} ${PROJECT_SOURCE_DIR}/cmake/scdoc.cmake VERBATIM)
    list(APPEND QP_MAN_PAGES ${CMAKE_BINARY_DIR}/man/${page})
    install(FILES ${CMAKE_BINARY_DIR}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(man ALL DEPENDS ${QP_MAN_PAGES})
else()
  message(STATUS "scdoc not found: manual pages are not built")
endif()
