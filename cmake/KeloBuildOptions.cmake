# Build-time settings that end up inside the library.

# The signing key agreed with the server operator. The default is a development key that only the
# bundled cloud simulator knows; production builds pass their own with -DKELO_SECRET_KEY=...
# The simulator is never built with KELO_SECRET_KEY: it takes its key at run time and knows only
# the development key by itself.
set(KELO_DEVELOPMENT_KEY "kLoDev7Qm2Xa9Rt4Vb8Nc3Zp6Wy1Hs5J")
set(KELO_SECRET_KEY "${KELO_DEVELOPMENT_KEY}" CACHE STRING
    "32-character request signing key (ASCII letters and digits)")
if(NOT KELO_SECRET_KEY MATCHES "^[A-Za-z0-9]+$")
    message(FATAL_ERROR "KELO_SECRET_KEY may hold ASCII letters and digits only")
endif()
string(LENGTH "${KELO_SECRET_KEY}" _kelo_key_length)
if(NOT _kelo_key_length EQUAL 32)
    message(FATAL_ERROR "KELO_SECRET_KEY must be exactly 32 characters long (got ${_kelo_key_length})")
endif()

# The server host compiled into the library. At run time a non-empty environment variable
# KELO_SERVER_HOST (host or host:port) replaces it for every Kelosdk constructed afterwards.
set(KELO_SERVER_HOST "api-staging.kelo.example" CACHE STRING "Server host compiled into the library")
if(KELO_SERVER_HOST STREQUAL "")
    message(FATAL_ERROR "KELO_SERVER_HOST must not be empty")
endif()

option(KELO_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
option(KELO_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

if(KELO_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()

# Writes the key as 32 single-character appends, so that the sources and the binary never hold it
# as one string. The generated file is included by Libcmn::keloSecretkey().
function(kelo_generate_secret_key_source output)
    set(body "// Generated at configure time from KELO_SECRET_KEY. Do not edit or commit.\n")
    string(LENGTH "${KELO_SECRET_KEY}" n)
    math(EXPR last "${n} - 1")
    foreach(i RANGE 0 ${last})
        string(SUBSTRING "${KELO_SECRET_KEY}" ${i} 1 c)
        string(APPEND body "key.append(QLatin1Char('${c}'));\n")
    endforeach()
    file(CONFIGURE OUTPUT "${output}" CONTENT "${body}")
endfunction()
