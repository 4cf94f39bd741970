# How everything is compiled, and the two kinds of target:
#   cloud_svr_freestanding(TARGET)  what runs on a device: no exceptions, no RTTI, no C++ run-time library
#   cloud_svr_hosted(TARGET)        tools and tests, with the standard library

add_library(cloud_svr_warnings INTERFACE)
target_compile_options(cloud_svr_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wformat=2 -Wundef -Werror
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Wthread-safety-beta>)

if(CLOUD_SVR_SANITIZE)
    add_compile_options(-fsanitize=${CLOUD_SVR_SANITIZE} -fno-omit-frame-pointer -g)
    add_link_options(-fsanitize=${CLOUD_SVR_SANITIZE})
    if(CLOUD_SVR_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()

# The C driver links what runs on a device, so a use of the C++ run-time library fails to link
# on every target. CMake would add that library by itself for mixed languages.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

function(cloud_svr_freestanding target)
    target_link_libraries(${target} PRIVATE cloud_svr_warnings)
    target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
        -ffunction-sections -fdata-sections -fvisibility=hidden)
    target_compile_definitions(${target} PRIVATE _GNU_SOURCE)
    # Sanitizers widen every frame: a task's stack grows with them. They need the tables to tell
    # where memory that a library asked for was wanted.
    if(CLOUD_SVR_SANITIZE)
        target_compile_definitions(${target} PRIVATE TASK_STACK_SIZE=1048576)
    else()
        target_compile_options(${target} PRIVATE
            -fno-asynchronous-unwind-tables -fno-unwind-tables)
    endif()
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
    target_link_options(${target} PRIVATE -Wl,--gc-sections -Wl,--as-needed -Wl,-z,relro,-z,now)
endfunction()

function(cloud_svr_hosted target)
    target_link_libraries(${target} PRIVATE cloud_svr_warnings)
    # A device has no C++ run-time library: what needs one brings it along.
    if(CMAKE_CROSSCOMPILING)
        target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
    else()
        target_link_libraries(${target} PRIVATE stdc++)
    endif()
    target_compile_definitions(${target} PRIVATE _GNU_SOURCE)
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
endfunction()

# The name that a source's log lines carry: the module's, with ".c".
function(cloud_svr_log_names)
    foreach(source IN LISTS ARGN)
        get_filename_component(module ${source} NAME_WE)
        set_property(SOURCE ${source} APPEND PROPERTY COMPILE_DEFINITIONS LOG_FILE="${module}.c")
    endforeach()
endfunction()
