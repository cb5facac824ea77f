# Writes the words of this program's messages as a C++ string literal: those in string literals of
# its C++, the functions of the driver interface, and all of its Lua but the comments, where members
# of JSON are plain words.
# cmake -DROOT=… -DOUTPUT=… -P extract_words.cmake
file(GLOB_RECURSE sources ${ROOT}/host/core/*.cpp ${ROOT}/host/driver/*.cpp ${ROOT}/host/driver/*.h
    ${ROOT}/host/driver/*.def ${ROOT}/host/module/*.cpp ${ROOT}/host/replay/*.cpp
    ${ROOT}/plugins/filter/*.cpp ${ROOT}/plugins/filter/*.h ${ROOT}/imports/vxi/*.h
    ${ROOT}/lua/*.lua)
set(words)
foreach(source ${sources})
    file(READ ${source} text)
    string(REGEX REPLACE "\\\\." " " text "${text}")
    if(source MATCHES "/vxi/[^/]*\\.h$")
        string(REGEX MATCHALL "(vxi|tb)_[a-z_]+" text "${text}")
    elseif(source MATCHES "\\.lua$")
        string(REGEX REPLACE "--[^\n]*" "" text "${text}")
    else()
        string(REGEX REPLACE "#include[^\n]*|//[^\n]*" "" text "${text}")
        string(REGEX MATCHALL "\"[^\"\n]*\"" text "${text}")
    endif()
    string(REGEX MATCHALL "[A-Za-z][A-Za-z0-9_-]*" found "${text}")
    list(APPEND words ${found})
endforeach()
list(TRANSFORM words TOLOWER)
list(REMOVE_DUPLICATES words)
list(REMOVE_ITEM words eth0)  # an example in a message; interfaces are masked
list(SORT words)
list(JOIN words " \"\n\"" text)
file(WRITE ${OUTPUT} "\"${text}\"\n")
