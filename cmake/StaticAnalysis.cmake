# Static analysis as a test: Debian's cppcheck over the product's sources
# (sources/, host/, datalayer/); any finding fails it. A finding that is meant
# is suppressed on the line before it, with its reason:
#   // cppcheck-suppress <id> ; <why>
# Run alone: ctest --test-dir build -R static_analysis --output-on-failure
find_program(WD64_CPPCHECK cppcheck)
if(WD64_CPPCHECK)
  add_test(NAME static_analysis
    COMMAND ${WD64_CPPCHECK} --enable=warning,performance,portability --platform=win64 --std=c++20
            --inline-suppr --error-exitcode=1 --quiet --suppress=missingIncludeSystem
            -D_WIN32 -DUNICODE -D_UNICODE
            -I ${CMAKE_SOURCE_DIR}/sources/common -I ${CMAKE_SOURCE_DIR}/sources
            -I ${CMAKE_SOURCE_DIR}/sources/general/watchdog -I ${CMAKE_SOURCE_DIR}/host
            ${CMAKE_SOURCE_DIR}/sources ${CMAKE_SOURCE_DIR}/host ${CMAKE_SOURCE_DIR}/datalayer)
else()
  add_test(NAME static_analysis COMMAND ${CMAKE_COMMAND} -E echo "cppcheck is missing: run scripts/setup.sh")
  set_tests_properties(static_analysis PROPERTIES WILL_FAIL TRUE)
endif()
