# Writes a C++ source, OUTPUT, whose string view velmar_sim::NAME holds the bytes of the file INPUT.
file(READ ${INPUT} bytes HEX)
string(REGEX REPLACE "(..)" "\\\\x\\1" bytes "${bytes}")
file(SIZE ${INPUT} size)
file(WRITE ${OUTPUT} "#include <string_view>
namespace velmar_sim {
extern const std::string_view ${NAME};
const std::string_view ${NAME}(\"${bytes}\", ${size});
}
")
