# Folder-level build helpers: every subsystem folder is one or more static targets,
# and the installed libzephlo.so is made of all of them.

# zephlo_library(NAME SRCS a.cpp ... DEPS target ... PRIVATE_DEPS target ...)
function(zephlo_library NAME)
  cmake_parse_arguments(ARG "" "" "SRCS;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${NAME} STATIC ${ARG_SRCS})
  target_include_directories(${NAME} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${NAME} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  set_property(GLOBAL APPEND PROPERTY ZEPHLO_LIBRARIES ${NAME})
endfunction()

# zephlo_test(NAME SRCS a_test.cpp ... DEPS target ...)
function(zephlo_test NAME)
  if(NOT ZEPHLO_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SRCS;DEPS" ${ARGN})
  add_executable(${NAME} ${ARG_SRCS})
  target_link_libraries(${NAME} PRIVATE ${ARG_DEPS} zephlo_testing GTest::gmock GTest::gtest_main)
  # Tests that talk to the local servers link them; the others stay light to build.
  foreach(src IN LISTS ARG_SRCS)
    file(STRINGS ${CMAKE_CURRENT_SOURCE_DIR}/${src} uses REGEX "zephlo/testing/(http|web_socket)_test_server.hpp")
    if(uses)
      target_link_libraries(${NAME} PRIVATE zephlo_testing_servers)
      break()
    endif()
  endforeach()
  gtest_discover_tests(${NAME} DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "ZEPHLO_BUILD_DIR=${PROJECT_BINARY_DIR}")
endfunction()

# Builds libzephlo.so from every static target and installs it with its headers,
# a CMake package (zephlo::zephlo) and a pkg-config file.
function(zephlo_finish_library)
  get_property(libs GLOBAL PROPERTY ZEPHLO_LIBRARIES)
  # The library's code is all in the folder targets; the shared object needs one
  # source of its own to exist.
  file(WRITE ${PROJECT_BINARY_DIR}/zephlo_shared.cpp "// libzephlo.so is made of the folder targets.\n")
  add_library(zephlo SHARED ${PROJECT_BINARY_DIR}/zephlo_shared.cpp)
  set_target_properties(zephlo PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  # Every folder's objects go into the shared object; linking the folder archives as
  # well brings in their external libraries (their own members are never pulled in,
  # since the objects already define every symbol).
  foreach(lib IN LISTS libs)
    target_sources(zephlo PRIVATE $<TARGET_OBJECTS:${lib}>)
  endforeach()
  target_link_libraries(zephlo PRIVATE ${libs})
  target_include_directories(zephlo INTERFACE $<INSTALL_INTERFACE:include>)
  add_library(zephlo::zephlo ALIAS zephlo)

  include(GNUInstallDirs)
  include(CMakePackageConfigHelpers)
  install(TARGETS zephlo EXPORT zephloTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  # Public headers only: tests and the platform's internal headers stay behind.
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/zephlo/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zephlo
    FILES_MATCHING PATTERN "*.hpp"
    PATTERN "*_test*" EXCLUDE
    PATTERN "*_internal.hpp" EXCLUDE
    PATTERN "testing" EXCLUDE)
  install(EXPORT zephloTargets NAMESPACE zephlo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zephlo)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zephloConfig.cmake.in
    ${PROJECT_BINARY_DIR}/zephloConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zephlo)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/zephloConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/zephloConfig.cmake ${PROJECT_BINARY_DIR}/zephloConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zephlo)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/zephlo.pc.in ${PROJECT_BINARY_DIR}/zephlo.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/zephlo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
