# The library is built in layers, one object library per subsystem folder, linked together into
# libpelmora.so (the public interface: symbols are hidden unless marked PELMORA_API) and into the
# static pelmora_static (everything, for the unit tests and fuzz targets that reach internals).
#
# Each subsystem folder calls pelmora_subsystem(<name> DEPENDS <lower layers>): its sources (every
# *.cc that is not a test) form pelmora_<name>, its headers are installed, and its tests
# (*_test.cc) form one GoogleTest executable named pelmora_<name>_test, linked with the layers'
# internals. Tests named after SHARED_TESTS form pelmora_<name>_shared_test instead, linked with
# libpelmora.so: what only a program using the shared library can observe.
#
# A layer sees only itself and what it depends on: its sources are compiled against a view of the
# tree (build/layers/<name>/pelmora/) holding links to its own folder and to the folders of its
# dependencies, direct and indirect, so including a header of a layer above, or beside, fails to
# compile. The layers are added from the bottom up, so each one's dependencies already exist.
function(pelmora_subsystem name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS;SHARED_TESTS")
  set(closure ${name})
  foreach(dep ${arg_DEPENDS})
    if(NOT TARGET pelmora_${dep})
      message(FATAL_ERROR "layer ${name} depends on ${dep}, which is not a layer below it")
    endif()
    get_target_property(dep_closure pelmora_${dep} PELMORA_LAYER_CLOSURE)
    list(APPEND closure ${dep_closure})
  endforeach()
  list(REMOVE_DUPLICATES closure)

  set(view ${PROJECT_BINARY_DIR}/layers/${name})
  file(REMOVE_RECURSE ${view})
  file(MAKE_DIRECTORY ${view}/pelmora)
  foreach(layer ${closure})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/pelmora/${layer} ${view}/pelmora/${layer} SYMBOLIC)
  endforeach()

  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc
       ${CMAKE_CURRENT_SOURCE_DIR}/internal/*.cc)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc
       ${CMAKE_CURRENT_SOURCE_DIR}/internal/*_test.cc)
  if(tests)
    list(REMOVE_ITEM sources ${tests})
  endif()
  add_library(pelmora_${name} OBJECT ${sources})
  set_target_properties(pelmora_${name} PROPERTIES
    PELMORA_LAYER_CLOSURE "${closure}"
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  # The build folder holds the generated tables (pelmora/<layer>/*.inc), never headers.
  target_include_directories(pelmora_${name} PRIVATE ${view} ${PROJECT_BINARY_DIR})
  target_link_libraries(pelmora_${name} PRIVATE fmt::fmt Threads::Threads ${CMAKE_DL_LIBS})
  target_link_libraries(pelmora PRIVATE pelmora_${name})
  target_link_libraries(pelmora_static PUBLIC pelmora_${name})

  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmora/${name})
  list(TRANSFORM arg_SHARED_TESTS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  if(PELMORA_BUILD_TESTS AND arg_SHARED_TESTS)
    list(REMOVE_ITEM tests ${arg_SHARED_TESTS})
    add_executable(pelmora_${name}_shared_test ${arg_SHARED_TESTS})
    target_link_libraries(pelmora_${name}_shared_test PRIVATE pelmora pelmora_testing
                          GTest::gmock_main)
    # Parameterised tests are named by their index (Suite.Test/0): the printed bytes of a
    # parameter hold addresses that change from one build to the next.
    gtest_discover_tests(pelmora_${name}_shared_test DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES)
  endif()
  if(PELMORA_BUILD_TESTS AND tests)
    add_executable(pelmora_${name}_test ${tests})
    target_link_libraries(pelmora_${name}_test PRIVATE pelmora_internals pelmora_testing
                          GTest::gmock_main)
    gtest_discover_tests(pelmora_${name}_test
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      PROPERTIES ENVIRONMENT "PELMORA_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
      DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES)
  endif()
endfunction()
