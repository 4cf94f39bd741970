find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_path(CJSON_INCLUDE_DIR cjson/cJSON.h REQUIRED)
find_library(CJSON_LIBRARY cjson REQUIRED)

add_library(cjson INTERFACE)
target_include_directories(cjson SYSTEM INTERFACE ${CJSON_INCLUDE_DIR})
target_link_libraries(cjson INTERFACE ${CJSON_LIBRARY})
