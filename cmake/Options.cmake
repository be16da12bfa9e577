# Warnings, sanitizers and Windows link options for our own targets.

set(VELMORA_SANITIZE "" CACHE STRING "Sanitizer build: '', 'address' (with undefined) or 'thread'")
option(VELMORA_FUZZ "the libFuzzer harnesses too (an ASan+UBSan build with clang)" OFF)

if(VELMORA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR NOT VELMORA_SANITIZE STREQUAL "address")
    message(FATAL_ERROR "VELMORA_FUZZ needs clang and ASan (-DCMAKE_CXX_COMPILER=clang++ -DVELMORA_SANITIZE=address)")
  endif()
  # Everything is instrumented for coverage; only a harness links the
  # fuzzer's main. The tests of the same build run the same objects.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(VELMORA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
elseif(VELMORA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VELMORA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "unknown VELMORA_SANITIZE '${VELMORA_SANITIZE}'")
endif()

if(WIN32)
  # The shipped binaries carry their runtime: nothing needs to lie beside them.
  add_link_options(-static -static-libgcc -static-libstdc++)
  add_compile_definitions(WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0601 UNICODE _UNICODE)
endif()

# Applied to the targets that are our code (not to GoogleTest).
function(velmora_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
