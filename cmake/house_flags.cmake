# Warnings are errors on both platforms; frame pointers and symbols stay, so that a sanitizer's or
# a field dump's stack can be read. A function with a buffer ends the program where the buffer has
# run over into the return address.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fno-omit-frame-pointer
                    -fstack-protector-strong)

if(STEWARDRY_SANITIZE)
  # A report needs files and lines; variables would double the time of a build.
  add_compile_options(-fsanitize=${STEWARDRY_SANITIZE} -fno-sanitize-recover=all -g1)
  add_link_options(-fsanitize=${STEWARDRY_SANITIZE})
  # g++ 12 sees this one inside std::regex once a sanitizer has been woven in; plain builds keep it.
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()

if(WIN32)
  # Windows 10 is the oldest system served. Everything is linked in, so the .exe runs alone.
  add_compile_definitions(_WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
  # The second option is for programs without platform/windows/runtime/stack_guard.cpp: they get GCC's.
  add_link_options(-static -fstack-protector-strong)
endif()

if(STEWARDRY_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
