# The libraries below the core: the system's shared ones, or static ones that go into what is built, so that it runs where
# none of them is installed. Sets fmt_target.

set(BRACKENFEN_STATIC_LIBRARIES "" CACHE PATH "Static libcurl and OpenSSL, as wheel/libraries.py makes them; empty: the system's own")

set(fmt_target fmt::fmt)
if(BRACKENFEN_STATIC_LIBRARIES)
  set(fmt_target fmt::fmt-header-only)
  set(CURL_NO_CURL_CMAKE ON)
  set(CURL_USE_STATIC_LIBS ON)
  set(CURL_INCLUDE_DIR ${BRACKENFEN_STATIC_LIBRARIES}/include)
  set(CURL_LIBRARY ${BRACKENFEN_STATIC_LIBRARIES}/lib/libcurl.a)
  set(OPENSSL_USE_STATIC_LIBS ON)
  set(OPENSSL_ROOT_DIR ${BRACKENFEN_STATIC_LIBRARIES})
endif()

find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(Threads REQUIRED)
find_package(fmt REQUIRED)

if(BRACKENFEN_STATIC_LIBRARIES AND NOT OPENSSL_SSL_LIBRARY STREQUAL "${BRACKENFEN_STATIC_LIBRARIES}/lib/libssl.a")
  message(FATAL_ERROR "Not the static OpenSSL: ${OPENSSL_SSL_LIBRARY}")
endif()
