# Installation rules: the public headers, both libraries, the kest2
# program, a CMake package (kest2Config.cmake, kest2ConfigVersion.cmake and
# the exported targets) and a pkg-config file.
#
# Installed layout (GNUInstallDirs, relative to the prefix):
#   include/kest2.h, include/kest2_timeline.h, include/kest2_scheduling.h,
#   include/kest2_version.h
#   lib/libkest2.a, lib/libkest2.so -> libkest2.so.0 -> libkest2.so.0.1.0
#   bin/kest2
#   lib/cmake/kest2/kest2Config.cmake, kest2ConfigVersion.cmake,
#                   kest2Targets.cmake (+ one file per configuration)
#   lib/pkgconfig/kest2.pc
#
# Exported targets, all in the kest2:: namespace:
#   kest2::kest2_static  the static library
#   kest2::kest2_shared  the shared library
#   kest2::kest2         an interface target that links kest2::kest2_static.
#     The static library is the default because the library is built for
#     programs that hand it all its memory up front and ship as one binary;
#     a consumer that wants the shared object names kest2::kest2_shared.
#
# Both packages are relocatable: the CMake files and kest2.pc locate the
# prefix from their own position, so `cmake --install BUILD --prefix DIR`
# works whatever CMAKE_INSTALL_PREFIX was at configure time.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KEST2_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/kest2"
    CACHE STRING "Where kest2Config.cmake is installed, relative to the prefix")
mark_as_advanced(KEST2_INSTALL_CMAKEDIR)

# Installed consumers find the headers in <prefix>/include; inside the build
# tree the $<BUILD_INTERFACE:...> directories of the top-level file apply.
foreach(_kest2_lib kest2_static kest2_shared)
  target_include_directories(${_kest2_lib} PUBLIC
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endforeach()

# kest2::kest2, the default library (see above).  EXPORT_NAME keeps the
# build-tree target name clear of the kest2 program's output file.
add_library(kest2_default INTERFACE)
set_target_properties(kest2_default PROPERTIES EXPORT_NAME kest2)
target_link_libraries(kest2_default INTERFACE kest2_static)

# The same names for a project that adds this tree with add_subdirectory().
add_library(kest2::kest2 ALIAS kest2_default)
add_library(kest2::kest2_static ALIAS kest2_static)
add_library(kest2::kest2_shared ALIAS kest2_shared)

install(TARGETS kest2_static kest2_shared kest2_default
  EXPORT kest2Targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
          NAMELINK_COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

install(FILES
    ${PROJECT_SOURCE_DIR}/include/kest2.h
    ${PROJECT_SOURCE_DIR}/include/kest2_timeline.h
    ${PROJECT_SOURCE_DIR}/include/kest2_scheduling.h
    ${PROJECT_BINARY_DIR}/include/kest2_version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT Development)

# The command-line program, when it is built.
if(TARGET kest2_cli)
  install(TARGETS kest2_cli
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
endif()

# --- CMake package ----------------------------------------------------------

install(EXPORT kest2Targets
  NAMESPACE kest2::
  FILE kest2Targets.cmake
  DESTINATION ${KEST2_INSTALL_CMAKEDIR}
  COMPONENT Development)

# The C++ runtime libraries that the C++ compiler links and the C compiler
# does not (with GCC: stdc++ and m).  A program whose link is driven by the
# C compiler needs them beside the static library: kest2Config.cmake adds
# them to kest2::kest2_static for such links, and kest2.pc lists them in
# Libs.private.
set(KEST2_CXX_RUNTIME_LIBRARIES "")
foreach(_kest2_rt IN LISTS CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
  if(NOT _kest2_rt IN_LIST CMAKE_C_IMPLICIT_LINK_LIBRARIES)
    list(APPEND KEST2_CXX_RUNTIME_LIBRARIES "${_kest2_rt}")
  endif()
endforeach()
list(REMOVE_DUPLICATES KEST2_CXX_RUNTIME_LIBRARIES)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/kest2Config.cmake.in
  ${PROJECT_BINARY_DIR}/kest2Config.cmake
  INSTALL_DESTINATION ${KEST2_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/kest2ConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/kest2Config.cmake
    ${PROJECT_BINARY_DIR}/kest2ConfigVersion.cmake
  DESTINATION ${KEST2_INSTALL_CMAKEDIR}
  COMPONENT Development)

# --- pkg-config file ----------------------------------------------------------

# The prefix is found from the file's own directory (${pcfiledir}), which
# both pkg-config and pkgconf expand, so the file survives --prefix.
set(_kest2_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${_kest2_pc_dir}")
  set(KEST2_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _kest2_pc_up "/${_kest2_pc_dir}" "/")
  string(REGEX REPLACE "/$" "" _kest2_pc_up "${_kest2_pc_up}")
  set(KEST2_PC_PREFIX "\${pcfiledir}/${_kest2_pc_up}")
endif()
foreach(_kest2_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_kest2_dir}}")
    set(KEST2_PC_${_kest2_dir} "${CMAKE_INSTALL_${_kest2_dir}}")
  else()
    set(KEST2_PC_${_kest2_dir} "\${prefix}/${CMAKE_INSTALL_${_kest2_dir}}")
  endif()
endforeach()

# What a static link needs besides libkest2.a: zlib (through its own
# zlib.pc when there is one), the threads flag, and the C++ runtime, which a
# C program's link does not bring in by itself.
set(KEST2_PC_REQUIRES_PRIVATE "")
set(_kest2_pc_libs_private "")
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(_KEST2_PC_ZLIB QUIET zlib)
endif()
if(_KEST2_PC_ZLIB_FOUND)
  set(KEST2_PC_REQUIRES_PRIVATE "zlib")
else()
  list(APPEND _kest2_pc_libs_private "-lz")
endif()
# libdeflate is found through its own .pc file (the build requires it).
string(JOIN " " KEST2_PC_REQUIRES_PRIVATE ${KEST2_PC_REQUIRES_PRIVATE} libdeflate)
if(CMAKE_THREAD_LIBS_INIT)
  list(APPEND _kest2_pc_libs_private "${CMAKE_THREAD_LIBS_INIT}")
else()
  list(APPEND _kest2_pc_libs_private "-pthread")
endif()
foreach(_kest2_rt IN LISTS KEST2_CXX_RUNTIME_LIBRARIES)
  if(_kest2_rt MATCHES "^-")
    list(APPEND _kest2_pc_libs_private "${_kest2_rt}")
  else()
    list(APPEND _kest2_pc_libs_private "-l${_kest2_rt}")
  endif()
endforeach()
list(REMOVE_DUPLICATES _kest2_pc_libs_private)
list(JOIN _kest2_pc_libs_private " " KEST2_PC_LIBS_PRIVATE)

configure_file(${CMAKE_CURRENT_LIST_DIR}/kest2.pc.in
               ${PROJECT_BINARY_DIR}/kest2.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kest2.pc
  DESTINATION ${_kest2_pc_dir}
  COMPONENT Development)
