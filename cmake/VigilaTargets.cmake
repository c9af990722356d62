# A folder is a layer, a layer is a target, and its sources are the .cpp files in it.

# vigila_platform_library(name DIRS dir… PUBLIC lib… PRIVATE lib…): a shared library of the host platform.
function(vigila_platform_library name)
  cmake_parse_arguments(ARG "" "" "DIRS;PUBLIC;PRIVATE" ${ARGN})
  set(globs)
  foreach(dir IN LISTS ARG_DIRS)
    list(APPEND globs ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
  endforeach()
  file(GLOB sources CONFIGURE_DEPENDS ${globs})
  add_library(${name} SHARED ${sources})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
                                            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
  set_property(GLOBAL APPEND PROPERTY VIGILA_LIBRARY_DIRS ${CMAKE_CURRENT_BINARY_DIR})
  install(TARGETS ${name} EXPORT vigila-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                                         NAMELINK_COMPONENT development)
endfunction()

# vigila_layer(name PUBLIC lib… PRIVATE lib…): one layer of libvigila; tests link the layer, users the library.
function(vigila_layer name)
  cmake_parse_arguments(ARG "" "" "PUBLIC;PRIVATE" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden
                                           VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/applications)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
endfunction()

# vigila_test(name [DIRS dir…] [LABELS l…] LIBS lib…): the .cpp files of this folder, and of its folders that
# are named, as one GoogleTest program.
function(vigila_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "DIRS;LIBS;LABELS" ${ARGN})
  set(globs ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  foreach(dir IN LISTS ARG_DIRS)
    list(APPEND globs ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
  endforeach()
  file(GLOB sources CONFIGURE_DEPENDS ${globs})
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  foreach(source IN LISTS sources)  # only where it is used: the path keeps the compiler cache from sharing
    file(STRINGS ${source} uses REGEX "TEST_DATA_DIR" LIMIT_COUNT 1)
    if(uses)
      set_property(SOURCE ${source} PROPERTY COMPILE_DEFINITIONS TEST_DATA_DIR="${CMAKE_SOURCE_DIR}/tests/data")
    endif()
  endforeach()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM precompiled-gtest)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
  if("threads" IN_LIST ARG_LABELS)
    add_dependencies(threads ${name})
  endif()
  if("process" IN_LIST ARG_LABELS OR "live" IN_LIST ARG_LABELS OR "plain" IN_LIST ARG_LABELS)
    add_dependencies(programs ${name})
  endif()
endfunction()
