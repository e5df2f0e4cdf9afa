# Warnings are errors on both platforms. Frame pointers and symbols make the stacks of a sanitizer
# or a dump readable. The stack protector ends the program if a buffer overwrites a return address.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fno-omit-frame-pointer
                    -fstack-protector-strong)

# GCC 12 warns falsely of "text" + std::string when it optimises.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()

if(STEWARDRY_SANITIZE)
  # -g1: a report needs files and lines; variables would double the build time.
  add_compile_options(-fsanitize=${STEWARDRY_SANITIZE} -fno-sanitize-recover=all -g1)
  add_link_options(-fsanitize=${STEWARDRY_SANITIZE})
  # g++ 12 with a sanitizer warns falsely inside std::regex; plain builds keep the warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()

if(WIN32)
  # Windows 10 is the oldest supported system. Static libraries make the .exe self-contained.
  add_compile_definitions(_WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
  # The second option gives GCC's stack guard to programs without platform/windows.
  add_link_options(-static -fstack-protector-strong)
endif()

if(STEWARDRY_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
