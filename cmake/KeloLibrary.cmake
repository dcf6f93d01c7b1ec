# The library target kelo (libkelo.so.1).

set(KELO_PUBLIC_HEADERS
    sdk/kelosdk.h
    protocol/libcmn.h
    http/httpbase.h
    http/httpbase2.h
    http/httpparams.h
    http/qmyquery.h
    http/httptool.h
    ws/wsclient.h
    catalogue/cdownloadfileman.h
)

set(KELO_SOURCES
    sdk/kelosdk.cpp
    global/kelologging.cpp
    protocol/libcmn.cpp
    http/httpbase.cpp
    http/httpbase2.cpp
    http/httpparams.cpp
    http/qmyquery.cpp
    http/httptool.cpp
    http/httppool.cpp
    http/httppool_p.h
    ws/wsclient.cpp
    catalogue/cdownloadfileman.cpp
    catalogue/foodcatalogue.cpp
)

set(KELO_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated")
set(KELO_BUILD_INCLUDE_DIR "${CMAKE_BINARY_DIR}/include")
kelo_generate_secret_key_source("${KELO_GENERATED_DIR}/kelo_secretkey.inc")
configure_file(cmake/kelo_config.h.in "${KELO_GENERATED_DIR}/kelo_config.h" @ONLY)

# Hosts write #include <kelo/kelosdk.h>: the build tree mirrors the installed layout.
foreach(header IN LISTS KELO_PUBLIC_HEADERS)
    get_filename_component(name "${header}" NAME)
    configure_file("${header}" "${KELO_BUILD_INCLUDE_DIR}/kelo/${name}" COPYONLY)
endforeach()

add_library(kelo SHARED ${KELO_SOURCES} ${KELO_PUBLIC_HEADERS})
add_library(Kelo::kelo ALIAS kelo)
if(NOT KELO_PACKAGE STREQUAL "Kelo")
    add_library(${KELO_PACKAGE}::kelo ALIAS kelo)
endif()

include(GenerateExportHeader)
generate_export_header(kelo BASE_NAME KELO EXPORT_FILE_NAME "${KELO_BUILD_INCLUDE_DIR}/kelo/kelo_export.h")

set_target_properties(kelo PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    EXPORT_NAME kelo
    OUTPUT_NAME ${KELO_OUTPUT_NAME}
)

target_include_directories(kelo
    PRIVATE
        "${CMAKE_CURRENT_SOURCE_DIR}/global"
        "${CMAKE_CURRENT_SOURCE_DIR}/sdk"
        "${CMAKE_CURRENT_SOURCE_DIR}/protocol"
        "${CMAKE_CURRENT_SOURCE_DIR}/http"
        "${CMAKE_CURRENT_SOURCE_DIR}/ws"
        "${CMAKE_CURRENT_SOURCE_DIR}/catalogue"
        "${KELO_GENERATED_DIR}"
    PUBLIC
        "$<BUILD_INTERFACE:${KELO_BUILD_INCLUDE_DIR}/kelo>"
        "$<BUILD_INTERFACE:${KELO_BUILD_INCLUDE_DIR}>"
        "$<INSTALL_INTERFACE:${KELO_INSTALL_INCLUDEDIR}>"
)
target_link_libraries(kelo PUBLIC ${KELO_QT}::Core ${KELO_QT}::Network ${KELO_QT}::WebSockets)
target_compile_definitions(kelo PRIVATE QT_NO_CAST_FROM_BYTEARRAY QT_NO_URL_CAST_FROM_STRING)
target_compile_options(kelo PRIVATE -Wall -Wextra $<$<BOOL:${KELO_WARNINGS_AS_ERRORS}>:-Werror>)
