# The import table of the Windows programs, as far as it is ours to choose.
#
# A DLL that stands in a program's ordinary import table is loaded before the program's first
# instruction, and Windows looks beside the executable first, unless the DLL is one of the few that
# it always takes from the system folder. So only kernel32 and msvcrt are imported that way. Every
# other function comes from a delay-load library made here: its DLL is loaded once the DLL search
# has been narrowed, and a DLL or a function that this Windows lacks doesn't keep the program from
# starting. platform/windows/runtime/delay_imports.cpp is the run-time half.

include(GNUInstallDirs)
find_program(STEWARDRY_DLLTOOL x86_64-w64-mingw32-dlltool REQUIRED)

# delay_import(target dll [Zero f...] [Error f...] [HResult f...] [MinusOne f...])
# What links `target` gets exactly these functions of dll.dll. The word before a function says what
# a caller is given where Windows lacks it: 0 (a BOOL, a pointer, nothing), the error code itself,
# an HRESULT, or -1 (a SOCKET, a HANDLE of CreateFile's kind). A function that stands in no row is
# an error of the link of each program that link_declared_imports_only was called for.
function(delay_import target dll)
  set(kinds Zero Error HResult MinusOne)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "${kinds}")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${dll}: what is given for ${arg_UNPARSED_ARGUMENTS}, where it is missing?")
  endif()
  set(exports "")
  set(rows "DELAYED_DLL(${dll})\n")
  foreach(kind IN LISTS kinds)
    foreach(name IN LISTS arg_${kind})
      string(APPEND exports "${name}\n")
      string(APPEND rows "DELAYED_FUNCTION(${name}, ${kind})\n")
    endforeach()
  endforeach()
  set_property(TARGET ${target} APPEND_STRING PROPERTY STEWARDRY_DELAY_ROWS "${rows}")

  set(definition ${CMAKE_CURRENT_BINARY_DIR}/${dll}.def)
  set(library ${CMAKE_CURRENT_BINARY_DIR}/libdelay_${dll}.a)
  file(CONFIGURE OUTPUT ${definition} CONTENT "LIBRARY ${dll}.dll\nEXPORTS\n${exports}" @ONLY)
  # The output is named without its folder because the descriptor is named after it; the prefix keeps
  # the temporary files of two runs apart.
  add_custom_command(OUTPUT ${library}
    COMMAND ${STEWARDRY_DLLTOOL} --machine i386:x86-64 --temp-prefix delay_${dll}
            --input-def ${definition} --output-delaylib libdelay_${dll}.a
    DEPENDS ${definition} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} VERBATIM)
  add_custom_target(delay_${dll} DEPENDS ${library})
  add_dependencies(${target} delay_${dll})
  set(installed ${CMAKE_INSTALL_LIBDIR}/stewardry)
  target_link_libraries(${target} PUBLIC $<BUILD_INTERFACE:${library}>
    $<INSTALL_INTERFACE:$<INSTALL_PREFIX>/${installed}/libdelay_${dll}.a>)
  install(FILES ${library} DESTINATION ${installed} COMPONENT stewardry_cim)
endfunction()

# write_delay_rows(target file): the rows of all DLLs, for delay_imports.cpp.
function(write_delay_rows target file)
  get_target_property(rows ${target} STEWARDRY_DELAY_ROWS)
  file(CONFIGURE OUTPUT ${file} CONTENT "${rows}" @ONLY)
endfunction()

# The driver of the compiler, and CMake, put a dozen import libraries behind every link, which would
# quietly serve a function that no row declares. A program made in the calling folder gets the
# runtime and kernel32 instead; the rest is declared, or missing.
macro(link_declared_imports_only target)
  target_link_options(${target} PRIVATE -nodefaultlibs)
  set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--start-group -lstdc++ -lpthread -lmingw32 -lgcc -lgcc_eh \
-lmoldname -lmingwex -lmsvcrt -lkernel32 -luuid -Wl,--end-group")
endmacro()
