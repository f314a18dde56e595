// The tokenizer section: magic, label, four counted lists (tokens, auxiliary values, token types,
// merges), four token ids and a flag, packed without padding.
#include "container/byte_cursor.h"
#include "container/zym2_reader.h"

namespace kel {

namespace {

bool readValue(ByteCursor& in, int32_t& out) {
  return in.read(out);
}

bool readValue(ByteCursor& in, std::string& out) {
  uint32_t length = 0;
  const uint8_t* bytes = nullptr;
  if (!in.read(length) || !in.take(length, bytes)) {
    return false;
  }
  out.assign(reinterpret_cast<const char*>(bytes), length);
  return true;
}

template <typename Element>
bool readList(ByteCursor& in, std::vector<Element>& list) {
  uint32_t count = 0;
  if (!in.read(count) || count > zym2::kMaxTokenizerCount) {
    return false;
  }
  // An element takes four bytes or more: a count that cannot fit fails before memory is claimed.
  if (in.remaining() / sizeof(uint32_t) < count) {
    return false;
  }
  list.resize(count);
  for (Element& element : list) {
    if (!readValue(in, element)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool ZYM2Reader::readTokenizer(TokenizerData& out) const {
  ByteCursor in(sectionData(zym2::SectionType::Tokenizer),
                sectionSize(zym2::SectionType::Tokenizer));
  uint32_t magic = 0;
  if (!in.read(magic) || magic != zym2::kTokenizerMagic) {
    return false;
  }
  if (!readValue(in, out.label)) {
    return false;
  }
  if (!readList(in, out.tokens) || !readList(in, out.auxValues)) {
    return false;
  }
  if (!readList(in, out.tokenTypes) || !readList(in, out.merges)) {
    return false;
  }
  if (!in.read(out.bosId) || !in.read(out.eosId)) {
    return false;
  }
  if (!in.read(out.unkId) || !in.read(out.extraId)) {
    return false;
  }
  uint8_t flag = 0;
  if (!in.read(flag)) {
    return false;
  }
  out.flag = flag != 0;
  return true;
}

}  // namespace kel
