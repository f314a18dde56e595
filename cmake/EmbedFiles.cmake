# A source file that holds others as they are: cmake -DOUTPUT=... -DFILES=name=path;... -P this.
# Each becomes an entry {name, text, digest} of zym::kEmbeddedFiles (host/serve/embedded_files.h).
set(arrays "")
set(entries "")
set(count 0)
foreach(pair IN LISTS FILES)
  string(REGEX MATCH "^([^=]+)=(.+)$" matched "${pair}")
  file(READ "${CMAKE_MATCH_2}" bytes HEX)
  file(SHA256 "${CMAKE_MATCH_2}" digest)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  string(SUBSTRING "${digest}" 0 16 digest)
  string(REGEX MATCH "^[^=]+" name "${pair}")
  string(APPEND arrays "constexpr char kFile${count}[] = {${bytes}};\n")
  string(APPEND entries
    "    {\"${name}\", {kFile${count}, sizeof(kFile${count})}, \"\\\"${digest}\\\"\"},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(WRITE "${OUTPUT}" "#include \"host/serve/embedded_files.h\"

namespace zym {
namespace {

${arrays}
constexpr EmbeddedFile kFiles[] = {
${entries}};

}  // namespace

std::span<const EmbeddedFile> embeddedFiles() {
  return kFiles;
}

}  // namespace zym
")
