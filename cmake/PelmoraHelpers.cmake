# Each subsystem folder calls pelmora_subsystem(<name>): its sources (every *.cc that is not a
# test) join libpelmora, its headers are installed, and its tests (*_test.cc) form one GoogleTest
# executable named pelmora_<name>_test that links the shared test fixtures in pelmora/testing.
function(pelmora_subsystem name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc
       ${CMAKE_CURRENT_SOURCE_DIR}/internal/*.cc)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc
       ${CMAKE_CURRENT_SOURCE_DIR}/internal/*_test.cc)
  if(tests)
    list(REMOVE_ITEM sources ${tests})
  endif()
  target_sources(pelmora PRIVATE ${sources})
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmora/${name})
  if(PELMORA_BUILD_TESTS AND tests)
    add_executable(pelmora_${name}_test ${tests})
    target_link_libraries(pelmora_${name}_test PRIVATE pelmora pelmora_testing GTest::gmock_main)
    gtest_discover_tests(pelmora_${name}_test
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      PROPERTIES ENVIRONMENT "PELMORA_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
      DISCOVERY_TIMEOUT 60)
  endif()
endfunction()
