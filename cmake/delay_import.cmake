# The import tables of the Windows programs.
#
# Windows loads a DLL of the ordinary import table before the program's first instruction and
# searches the folder of the executable first, unless it always takes the DLL from the system
# folder. So only kernel32 and msvcrt are imported that way. Every other function comes from a
# delay-load library made here: its DLL is loaded after the DLL search has been restricted, and the
# program starts also where the DLL or the function is missing. The run-time half is
# platform/windows/runtime/delay_imports.cpp.

include(GNUInstallDirs)
find_program(STEWARDRY_DLLTOOL x86_64-w64-mingw32-dlltool REQUIRED)

# delay_import(target dll [Zero f...] [Error f...] [HResult f...] [MinusOne f...])
# Declares the functions of dll.dll that `target` and what links it may import. The word before a
# function is its result where Windows lacks it: 0 (a BOOL, a pointer, nothing), the error code
# itself, an HRESULT, or -1 (a SOCKET, a HANDLE of CreateFile). A function without a row fails the
# link of each program with link_declared_imports_only.
function(delay_import target dll)
  set(kinds Zero Error HResult MinusOne)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "${kinds}")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${dll}: no result is declared for ${arg_UNPARSED_ARGUMENTS}")
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
  # The output has no folder in its name because the descriptor is named after it. The prefix
  # separates the temporary files of two runs.
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

# Writes the rows of all DLLs of `target` to `file`, for delay_imports.cpp.
function(write_delay_rows target file)
  get_target_property(rows ${target} STEWARDRY_DELAY_ROWS)
  file(CONFIGURE OUTPUT ${file} CONTENT "${rows}" @ONLY)
endfunction()

# Links the programs of the calling folder to the runtime and kernel32 only. By default the compiler
# and CMake add a dozen import libraries, which would resolve a function that no row declares.
macro(link_declared_imports_only target)
  target_link_options(${target} PRIVATE -nodefaultlibs)
  set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--start-group -lstdc++ -lpthread -lmingw32 -lgcc -lgcc_eh \
-lmoldname -lmingwex -lmsvcrt -lkernel32 -luuid -Wl,--end-group")
endmacro()
