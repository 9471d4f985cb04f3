# Sets NIMBRA_HEADER_FUNCTIONS to the functions that the public header declares, in its order; read
# from the header itself so that the list cannot grow old.

file(READ "${CMAKE_SOURCE_DIR}/include/nimbra/nimbra.h" declarations)
string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" declarations "${declarations}")
string(REGEX REPLACE "//[^\n]*" "" declarations "${declarations}")
string(REGEX MATCHALL "CORVWinCF[A-Za-z]+\\(" NIMBRA_HEADER_FUNCTIONS "${declarations}")
list(TRANSFORM NIMBRA_HEADER_FUNCTIONS REPLACE "\\(" "")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             "${CMAKE_SOURCE_DIR}/include/nimbra/nimbra.h")
