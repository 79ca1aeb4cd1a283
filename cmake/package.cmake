# The Debian packages, made by CPack; script/package calls it.

set(debian_dir "${PROJECT_SOURCE_DIR}/cmake/debian")
set(debian_build_dir "${PROJECT_BINARY_DIR}/debian")

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Packages are built with CMAKE_INSTALL_PREFIX=/usr")
endif()

# --- The version, with the packages' own revision, and who made them ----------

file(STRINGS "${debian_dir}/changelog" newest_entry LIMIT_COUNT 1)
if(NOT newest_entry MATCHES "^vrxutil \\(${PROJECT_VERSION}-([0-9]+)\\) ")
  message(FATAL_ERROR "The newest entry of ${debian_dir}/changelog is not one of version "
    "${PROJECT_VERSION}: ${newest_entry}")
endif()
set(revision "${CMAKE_MATCH_1}")
file(STRINGS "${debian_dir}/changelog" signature REGEX "^ -- " LIMIT_COUNT 1)
string(REGEX REPLACE "^ -- (.*>).*" "\\1" maintainer "${signature}")

# --- The folders that the library expects -------------------------------------

# package_folder(MODE FOLDER): makes it, empty; and a line for postinst.
set(secure_folders "")
function(package_folder mode folder)
  set(bits_of_7 READ WRITE EXECUTE)
  set(bits_of_5 READ EXECUTE)
  set(bits_of_0)
  set(permissions)
  set(classes OWNER GROUP WORLD)
  string(REGEX MATCHALL "[0-7]" digits "${mode}")
  foreach(who digit IN ZIP_LISTS classes digits)
    foreach(bit IN LISTS bits_of_${digit})
      list(APPEND permissions ${who}_${bit})
    endforeach()
  endforeach()
  cmake_path(GET folder PARENT_PATH parent)
  cmake_path(GET folder FILENAME name)
  file(MAKE_DIRECTORY "${debian_build_dir}/empty/${name}")
  install(DIRECTORY "${debian_build_dir}/empty/${name}" DESTINATION "${parent}"
    COMPONENT runtime DIRECTORY_PERMISSIONS ${permissions})
  set(secure_folders "${secure_folders}  secure ${mode} ${folder}\n" PARENT_SCOPE)
endfunction()

# Whoever may enter the first can hold up and mislead all who use locks.
package_folder(700 /Library/Vornix/oxa/scratch)
package_folder(750 /var/lib/vornix/oxa)
package_folder(700 /var/lib/vornix/oxa/keys)
package_folder(750 /var/lib/vornix/oxa/log)
package_folder(750 /var/lib/vornix/updater)
string(STRIP "${secure_folders}" secure_folders)
configure_file("${debian_dir}/postinst.in" "${debian_build_dir}/postinst" @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)

# --- What stands in /usr/share ------------------------------------------------

file(READ "${PROJECT_SOURCE_DIR}/LICENSE" licence)
string(REGEX REPLACE "^.*\n(Permission is )" "\\1" licence "${licence}")
string(STRIP "${licence}" licence)
# As the format wants it: each line indented, an empty one a dot.
string(REPLACE "\n\n" "\n.\n" licence "${licence}")
string(REPLACE "\n" "\n " licence " ${licence}")
configure_file("${debian_dir}/copyright.in" "${debian_build_dir}/copyright" @ONLY)

find_program(GZIP gzip REQUIRED)
# package_gzip(SOURCE NAME): NAME.gz, the same whenever it is made.
function(package_gzip source name)
  execute_process(COMMAND "${GZIP}" --best --no-name --stdout "${source}"
    OUTPUT_FILE "${debian_build_dir}/${name}.gz" COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${source}")
endfunction()

package_gzip("${debian_dir}/changelog" changelog.Debian)
package_gzip("${PROJECT_SOURCE_DIR}/CHANGELOG.md" changelog)

# --- The packages -------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vrxutil)
set(CPACK_PACKAGE_CONTACT "${maintainer}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
# Else the project's description stands above that of each package.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
# The folders above do not stand below /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/compress_manuals.cmake")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE vrxutil)
set(CPACK_DEBIAN_PACKAGE_RELEASE "${revision}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
foreach(library vrxutil vrxcomn zulral)
  get_target_property(folder ${library} BINARY_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${folder}")
endforeach()
# What is built with this version needs it or a later one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# These are of one version with the libraries.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)

# debian_package(COMPONENT PACKAGE SECTION SUMMARY DETAILS): makes a package of the
# component, with what each package has to tell of itself.
function(debian_package component package section summary details)
  install(FILES
    "${debian_build_dir}/copyright"
    "${debian_build_dir}/changelog.Debian.gz"
    "${debian_build_dir}/changelog.gz"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}" COMPONENT ${component})
  # What lintian complains of and is meant so.
  install(FILES "${debian_dir}/${package}.lintian-overrides"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" COMPONENT ${component}
    RENAME ${package})
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_DESCRIPTION "${summary}\n${details}" PARENT_SCOPE)
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
endfunction()

set(CPACK_COMPONENTS_ALL)
set(about
  "Logging with error traces, wide strings, binary records, files, INI files,"
  "encrypted XML, locks between processes and between threads, for processes"
  "that run as root for months."
  ".\n")
list(JOIN about "\n" about)
debian_package(runtime libvrxutil${PROJECT_VERSION_MAJOR} libs
  "utilities for the daemons of a management agent"
  "${about}The shared libraries, and the folders for data, keys, records and locks.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${debian_build_dir}/postinst" "${debian_dir}/postrm" "${debian_dir}/triggers")
debian_package(development libvrxutil-dev libdevel
  "utilities for the daemons of a management agent (development)"
  "${about}The headers, which are the manual too, a CMake package and a pkg-config file.")
if(TARGET vrxtool)
  debian_package(tools vrxutil-tools admin
    "tool for the files and locks of a management agent"
    "Shows and mends what the daemons keep: encrypted XML, INI files, binary\nrecords, and locks between processes.")
endif()

include(CPack)
