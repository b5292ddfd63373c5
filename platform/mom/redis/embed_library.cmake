# Makes the C++ source behind library.h: cmake -DLUA=FILE -DSOURCE=FILE -P this.
file(READ ${LUA} text)
if(NOT text MATCHES "^#!lua name=([a-z0-9_]+)\n")
    message(FATAL_ERROR "${LUA}: the first line is not \"#!lua name=NAME\"")
endif()
file(WRITE ${SOURCE} "#include \"platform/mom/redis/library.h\"

const char vvl::mom::redis_library_name[] = \"${CMAKE_MATCH_1}\";
const char vvl::mom::redis_library[] = R\"lua(${text})lua\";
")
