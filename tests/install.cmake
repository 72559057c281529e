# Installs the built library into a temporary prefix and builds the version
# example against the installed tree alone, the three ways the README shows
# (CMake package, pkg-config, plain flags), each with -Wall -Wextra -Werror,
# and runs each program. Then packages the same install rules as a .deb and
# lists it. Everything is written under ${BINARY_DIR}/install_check.
file(STRINGS ${BINARY_DIR}/CMakeCache.txt cache
  REGEX "^(QEL_SANITIZE|CMAKE_GENERATOR|CMAKE_MAKE_PROGRAM|CMAKE_CXX_COMPILER|CMAKE_INSTALL_LIBDIR|CMAKE_INSTALL_INCLUDEDIR):")
foreach(entry ${cache})
  string(REGEX MATCH "^([A-Z_]+):[A-Z]+=(.*)$" unused "${entry}")
  set(${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
endforeach()
# The installed library would need the sanitizer runtime in every program
# that links it; the normal build checks the install.
if(QEL_SANITIZE)
  message(STATUS "install check skipped in a sanitizer build")
  return()
endif()

set(dir ${BINARY_DIR}/install_check)
set(prefix ${dir}/prefix)
set(libdir ${prefix}/${CMAKE_INSTALL_LIBDIR})
file(REMOVE_RECURSE ${dir})
file(MAKE_DIRECTORY ${dir})
# The example is copied so that nothing of the source tree is near it.
file(COPY ${SOURCE_DIR}/examples/version.cpp DESTINATION ${dir})

# Paths go into regular expressions below with their special characters escaped.
string(REGEX REPLACE "([][+.*()^$?|\\])" "\\\\\\1" libdir_re "${libdir}")
string(REGEX REPLACE "([][+.*()^$?|\\])" "\\\\\\1" binary_re "${BINARY_DIR}")

# Runs a command in ${dir}; fails the test with its output unless it exits 0.
function(run out)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${dir}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " line "${ARGN}")
    message(FATAL_ERROR "failed (${status}): ${line}\n${output}${errors}")
  endif()
  set(${out} "${output}" PARENT_SCOPE)
endfunction()

# Checks a program built against the installed tree: it needs the library
# by its SONAME, finds it in the prefix, and answers as expected.
function(check_program program)
  run(dynamic readelf -d ${program})
  if(NOT dynamic MATCHES "NEEDED[^\n]*\\[libqeltradeapi\\.so\\.${major}\\]"
     OR NOT dynamic MATCHES "R(UN)?PATH[^\n]*${libdir_re}")
    message(FATAL_ERROR "${program} does not load the installed library by its SONAME:\n${dynamic}")
  endif()
  run(output ${program})
  if(NOT output MATCHES "V${major}\\.[^\n]*\nmain [0-9]+ build [0-9]+\nRegisterFront -> 0\nRelease -> -9\nJoin -> 0\n")
    message(FATAL_ERROR "${program} printed:\n${output}")
  endif()
endfunction()

# Install, and nothing but the public files.
run(unused ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
file(GLOB_RECURSE installed RELATIVE ${prefix} ${prefix}/*)
set(include_rel ${CMAKE_INSTALL_INCLUDEDIR}/qeltradeapi)
set(cmake_rel ${CMAKE_INSTALL_LIBDIR}/cmake/qeltradeapi)
set(allowed
  "${include_rel}/QelcTraderApi\\.h" "${include_rel}/QelcTraderApiStruct\\.h"
  "${CMAKE_INSTALL_LIBDIR}/libqeltradeapi\\.so(\\.[0-9]+)*"
  "${cmake_rel}/qeltradeapi(Config|ConfigVersion|Targets|Targets-[a-z]+)\\.cmake"
  "${CMAKE_INSTALL_LIBDIR}/pkgconfig/qeltradeapi\\.pc")
foreach(file ${installed})
  set(known FALSE)
  foreach(pattern ${allowed})
    if(file MATCHES "^${pattern}$")
      set(known TRUE)
    endif()
  endforeach()
  if(NOT known)
    message(FATAL_ERROR "installed a file that is not public: ${file}")
  endif()
endforeach()
list(LENGTH installed count)
if(NOT count EQUAL 10)
  message(FATAL_ERROR "expected 10 installed files, found ${count}:\n${installed}")
endif()

# The version: the pkg-config file, the library's file name and SONAME, and
# the banner the library prints all carry the same one.
run(version ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${libdir}/pkgconfig
  pkg-config --modversion qeltradeapi)
string(STRIP "${version}" version)
string(REGEX MATCH "^[0-9]+" major "${version}")
if(NOT EXISTS ${libdir}/libqeltradeapi.so.${version})
  message(FATAL_ERROR "no libqeltradeapi.so.${version} in ${libdir}")
endif()
run(dynamic readelf -d ${libdir}/libqeltradeapi.so.${version})
if(NOT dynamic MATCHES "SONAME[^\n]*\\[libqeltradeapi\\.so\\.${major}\\]")
  message(FATAL_ERROR "SONAME is not libqeltradeapi.so.${major}:\n${dynamic}")
endif()
if(dynamic MATCHES "PATH[^\n]*${binary_re}")
  message(FATAL_ERROR "the installed library keeps the build tree's run path:\n${dynamic}")
endif()

# 1. The CMake package.
file(WRITE ${dir}/app/CMakeLists.txt "
cmake_minimum_required(VERSION 3.20)
project(app CXX)
find_package(qeltradeapi ${major} REQUIRED)
if(NOT qeltradeapi_DIR STREQUAL \"${prefix}/${cmake_rel}\")
  message(FATAL_ERROR \"found the package in \${qeltradeapi_DIR}\")
endif()
add_executable(version ../version.cpp)
target_compile_options(version PRIVATE -Wall -Wextra -Werror)
target_link_libraries(version PRIVATE qeltradeapi::qeltradeapi)
")
run(unused ${CMAKE_COMMAND} -S ${dir}/app -B ${dir}/app/build -G ${CMAKE_GENERATOR}
  -DCMAKE_MAKE_PROGRAM=${CMAKE_MAKE_PROGRAM} -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
run(unused ${CMAKE_COMMAND} --build ${dir}/app/build)
check_program(${dir}/app/build/version)

# 2. pkg-config.
run(flags ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${libdir}/pkgconfig
  pkg-config --cflags --libs qeltradeapi)
run(pc_libdir ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${libdir}/pkgconfig
  pkg-config --variable=libdir qeltradeapi)
separate_arguments(flags UNIX_COMMAND "${flags}")
string(STRIP "${pc_libdir}" pc_libdir)
run(unused ${CMAKE_CXX_COMPILER} -std=c++17 -Wall -Wextra -Werror version.cpp -o version_pc
  ${flags} -Wl,-rpath,${pc_libdir})
check_program(${dir}/version_pc)

# 3. Plain flags.
run(unused ${CMAKE_CXX_COMPILER} -std=c++17 -Wall -Wextra -Werror -I${prefix}/${include_rel}
  version.cpp -o version_plain -L${libdir} -lqeltradeapi -Wl,-rpath,${libdir})
check_program(${dir}/version_plain)

# The Debian package holds the same public files, under /usr.
find_program(dpkg_deb dpkg-deb)
if(NOT dpkg_deb)
  message(STATUS "dpkg-deb missing: the .deb check is skipped")
  return()
endif()
get_filename_component(cmake_bin ${CMAKE_COMMAND} DIRECTORY)
run(unused ${cmake_bin}/cpack -G DEB --config ${BINARY_DIR}/CPackConfig.cmake -B ${dir}/deb)
file(GLOB debs ${dir}/deb/qeltradeapi_${version}*.deb)
list(LENGTH debs count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one qeltradeapi_${version} .deb, found: ${debs}")
endif()
run(contents ${dpkg_deb} --contents ${debs})
foreach(file
    ${CMAKE_INSTALL_LIBDIR}/libqeltradeapi.so.${version}
    ${CMAKE_INSTALL_LIBDIR}/libqeltradeapi.so.${major}
    ${CMAKE_INSTALL_LIBDIR}/libqeltradeapi.so
    ${include_rel}/QelcTraderApi.h
    ${include_rel}/QelcTraderApiStruct.h
    ${cmake_rel}/qeltradeapiConfig.cmake
    ${cmake_rel}/qeltradeapiTargets.cmake
    ${CMAKE_INSTALL_LIBDIR}/pkgconfig/qeltradeapi.pc)
  string(REPLACE "." "\\." pattern "${file}")
  if(NOT contents MATCHES " \\./usr/${pattern}( |\n)")
    message(FATAL_ERROR "the .deb lacks /usr/${file}:\n${contents}")
  endif()
endforeach()
if(contents MATCHES "qel_internal|test_|bench")
  message(FATAL_ERROR "the .deb holds files that are not public:\n${contents}")
endif()
message(STATUS "install check: CMake package, pkg-config, plain flags and .deb")
