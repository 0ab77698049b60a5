# One interface target carries the language level, warnings and strict Qt defines;
# every target of the project links it.
add_library(twinfold_options INTERFACE)
target_compile_features(twinfold_options INTERFACE cxx_std_20)
target_compile_options(twinfold_options INTERFACE -Wall -Wextra -Wpedantic)
if(TWINFOLD_WERROR)
  target_compile_options(twinfold_options INTERFACE -Werror)
endif()
target_compile_definitions(twinfold_options INTERFACE
  QT_NO_CAST_FROM_ASCII
  QT_NO_CAST_TO_ASCII
  QT_NO_CAST_FROM_BYTEARRAY
  QT_NO_URL_CAST_FROM_STRING
  QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
  QT_NO_CONTEXTLESS_CONNECT
  QT_NO_FOREACH
  QT_STRICT_ITERATORS
  QT_USE_QSTRINGBUILDER
  QT_DISABLE_DEPRECATED_UP_TO=0x060000
  TWINFOLD_VERSION="${PROJECT_VERSION}")

if(TWINFOLD_SANITIZE STREQUAL "address")
  set(san -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
elseif(TWINFOLD_SANITIZE STREQUAL "thread")
  set(san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT TWINFOLD_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TWINFOLD_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(san)
  target_compile_options(twinfold_options INTERFACE ${san})
  target_link_options(twinfold_options INTERFACE ${san})
endif()
