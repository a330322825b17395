# Says what is missing for a preset together with the remedy, where a compiler or CMake would only
# say that something does not work.
set(VELMAR_REMEDY "Run 'scripts/setup.sh all' first ('build' is enough for release and debug).")

# Tries the compiler that a preset or its toolchain file names, with its libraries, and the emulator.
# Comes before project(), which ends with what the compiler says.
function(velmar_try_compiler)
  if(CMAKE_TOOLCHAIN_FILE)
    include(${CMAKE_TOOLCHAIN_FILE})
  endif()
  if(NOT CMAKE_CXX_COMPILER OR VELMAR_COMPILER_WORKS)
    return()
  endif()
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  if(VELMAR_SANITIZE)
    list(APPEND flags -fsanitize=${VELMAR_SANITIZE})
  endif()
  set(tried ${CMAKE_CXX_COMPILER} ${flags})
  execute_process(COMMAND ${CMAKE_COMMAND} -E echo "int main() {}"
      COMMAND ${tried} -x c++ -include string -o /dev/null -
      RESULT_VARIABLE result ERROR_VARIABLE error)
  if(result EQUAL 0 AND CMAKE_CROSSCOMPILING_EMULATOR)
    set(tried ${CMAKE_CROSSCOMPILING_EMULATOR})
    execute_process(COMMAND ${tried} --version
        RESULT_VARIABLE result ERROR_VARIABLE error OUTPUT_QUIET)
  endif()
  if(NOT result EQUAL 0)
    list(JOIN tried " " tried)
    message(FATAL_ERROR "'${tried}' does not work (${result}). ${VELMAR_REMEDY}\n${error}")
  endif()
  set(VELMAR_COMPILER_WORKS ON CACHE INTERNAL "")
endfunction()

# Ends unless each of the variables, results of find_package and the like, is set.
function(velmar_require)
  foreach(found IN LISTS ARGN)
    if(NOT ${found})
      message(FATAL_ERROR "${found}: nothing found for ${CMAKE_CXX_COMPILER}. ${VELMAR_REMEDY}")
    endif()
  endforeach()
endfunction()
