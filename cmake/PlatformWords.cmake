# The platform family and codename words that ZBackendImpl matches the
# environment against. They come with the product a controller build is
# for; the defaults are placeholders that no real platform reports
# (docs/events.md, "Platform words").
set(ORBEL_CODENAME_WORDS "CODENAME_A;CODENAME_B" CACHE STRING
    "The two codenames that make ZBackendImpl::IsMorwen() true (whole TARN_CODENAME)")
set(ORBEL_BLADED_FAMILY_WORD "FAMILY_B" CACHE STRING
    "The 8-character FEN_FAMILY prefix of a bladed platform")
set(ORBEL_DENSE_FAMILY_WORDS "FAMILY_D1;FAMILY_D2" CACHE STRING
    "The two 9-character FEN_FAMILY prefixes of a dense platform")

list(LENGTH ORBEL_CODENAME_WORDS _orbel_n1)
list(LENGTH ORBEL_DENSE_FAMILY_WORDS _orbel_n2)
if(NOT _orbel_n1 EQUAL 2 OR NOT _orbel_n2 EQUAL 2)
  message(FATAL_ERROR "ORBEL_CODENAME_WORDS and ORBEL_DENSE_FAMILY_WORDS hold two words each")
endif()
list(GET ORBEL_CODENAME_WORDS 0 _orbel_c1)
list(GET ORBEL_CODENAME_WORDS 1 _orbel_c2)
list(GET ORBEL_DENSE_FAMILY_WORDS 0 _orbel_d1)
list(GET ORBEL_DENSE_FAMILY_WORDS 1 _orbel_d2)
# The lengths are checked by the compiler (static_assert in ZBackendImpl.cpp).
set_property(SOURCE ${CMAKE_CURRENT_SOURCE_DIR}/Common/ZBackendImpl.cpp APPEND PROPERTY
  COMPILE_DEFINITIONS
    ORBEL_CODENAME_WORD_1="${_orbel_c1}" ORBEL_CODENAME_WORD_2="${_orbel_c2}"
    ORBEL_BLADED_FAMILY_WORD="${ORBEL_BLADED_FAMILY_WORD}"
    ORBEL_DENSE_FAMILY_WORD_1="${_orbel_d1}" ORBEL_DENSE_FAMILY_WORD_2="${_orbel_d2}")
