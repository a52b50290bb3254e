# Where `cmake --install` puts the programs, their manual pages and the service files, and the
# Debian package that scripts/package.sh makes of them with CPack. A package wants
# -DCMAKE_INSTALL_PREFIX=/usr at configure time: the unit and the instance runner name absolute
# paths, which are fixed when they are configured.
include(GNUInstallDirs)

set(drover_dist_dir ${CMAKE_CURRENT_SOURCE_DIR}/dist)
set(drover_package_dir ${CMAKE_CURRENT_BINARY_DIR}/package)
set(DROVER_PACKAGE_MAINTAINER "drover developers <drover@example.org>"
    CACHE STRING "Maintainer field and changelog signature of the Debian package")

# systemd's own answer for system units (/lib/systemd/system on Debian 12); under any other
# prefix the units go below that prefix, where systemd looks for local units too.
set(drover_unit_dir ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(drover_unit_dir /lib/systemd/system)
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_get_variable(systemd_unit_dir systemd systemdsystemunitdir)
    if(systemd_unit_dir)
      set(drover_unit_dir ${systemd_unit_dir})
    endif()
  endif()
endif()
# Empty means derived from the prefix, so that a later change of the prefix moves the unit too.
set(DROVER_SYSTEMD_UNIT_DIR "" CACHE PATH "Directory for drover@.service (empty: by the prefix)")
if(DROVER_SYSTEMD_UNIT_DIR)
  set(drover_unit_dir ${DROVER_SYSTEMD_UNIT_DIR})
endif()

set(DROVER_BINARY ${CMAKE_INSTALL_FULL_BINDIR}/drover)
set(DROVER_INSTANCE ${CMAKE_INSTALL_FULL_LIBEXECDIR}/drover/drover-instance)
set(DROVER_CONF_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/drover)
# Runnable in the build tree too, where the tests run it.
configure_file(${drover_dist_dir}/drover-instance.in ${drover_package_dir}/drover-instance @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                WORLD_READ WORLD_EXECUTE)
configure_file(${drover_dist_dir}/drover@.service.in ${drover_package_dir}/drover@.service @ONLY)
configure_file(${drover_dist_dir}/debian/conffiles.in ${drover_package_dir}/conffiles @ONLY)

# Manual pages from scdoc sources: scdoc is a small Debian package whose source format is made
# for man pages alone, and it writes plain man(7) that `man --warnings` takes without a word.
find_program(DROVER_SCDOC scdoc)
set(drover_man_pages)
if(DROVER_SCDOC)
  foreach(page drover drover-sink)
    set(source ${CMAKE_CURRENT_SOURCE_DIR}/man/${page}.1.scd)
    set(page_file ${CMAKE_CURRENT_BINARY_DIR}/man/${page}.1)
    add_custom_command(OUTPUT ${page_file}.gz
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
      COMMAND sh -c "\"$0\" < \"$1\" > \"$2\" && gzip -9nkf \"$2\"" ${DROVER_SCDOC} ${source} ${page_file}
      DEPENDS ${source}
      COMMENT "Writing the manual page ${page}(1)" VERBATIM)
    list(APPEND drover_man_pages ${page_file}.gz)
  endforeach()
else()
  message(WARNING "scdoc not found: no manual pages (scripts/setup.sh installs it)")
endif()

# The manual pages and the package's version and changelog, made on every build like the
# version text they follow.
add_custom_target(drover_dist ALL
  COMMAND ${CMAKE_COMMAND} -DHEADER=${CMAKE_CURRENT_BINARY_DIR}/generated/version_text.h
          -DOUTPUT_DIR=${drover_package_dir} -DMAINTAINER=${DROVER_PACKAGE_MAINTAINER}
          -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/package_version.cmake
  DEPENDS ${drover_man_pages}
  BYPRODUCTS ${drover_package_dir}/debian-version.txt ${drover_package_dir}/changelog.gz
  COMMENT "Deriving the package version" VERBATIM)
add_dependencies(drover_dist drover_version_text)

install(TARGETS drover RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET drover-sink)
  install(TARGETS drover-sink RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(FILES ${drover_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(PROGRAMS ${drover_package_dir}/drover-instance
        DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/drover)
install(FILES ${drover_package_dir}/drover@.service DESTINATION ${drover_unit_dir})
install(FILES ${drover_dist_dir}/example.conf DESTINATION ${DROVER_CONF_DIR})
install(FILES ${drover_dist_dir}/example.conf ${drover_dist_dir}/logrotate.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${drover_dist_dir}/debian/copyright ${drover_package_dir}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${drover_dist_dir}/debian/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME drover)

# The Debian package: cpack -G DEB in the build directory (scripts/package.sh).
set(CPACK_PACKAGE_NAME drover)
set(CPACK_PACKAGE_VENDOR "drover developers")
set(CPACK_PACKAGE_CONTACT "${DROVER_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "log shipper that sends log lines over TLS")
set(CPACK_PACKAGE_DESCRIPTION "drover follows log files, or reads files, pipes and FIFOs once,
cuts them into lines and ships the lines in batches over TLS to the ingest
endpoints of a log database, with back-pressure and at-least-once delivery.
The package runs one agent per shipping job under systemd (drover@NAME,
configured in /etc/drover/NAME.conf) and holds drover-sink, a local ingest
endpoint for trying it out.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The maintainer scripts call adduser and getent (libc-bin is essential).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "logrotate")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${drover_dist_dir}/debian/postinst ${drover_dist_dir}/debian/prerm
    ${drover_dist_dir}/debian/postrm ${drover_package_dir}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The version is read at packing time from what the build derived from the binaries' version text.
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/cpack_config.cmake.in
               ${drover_package_dir}/cpack_config.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${drover_package_dir}/cpack_config.cmake)
set(CPACK_GENERATOR DEB)
include(CPack)
