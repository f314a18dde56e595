#include "convert/json_reader.h"

#include <unordered_set>
#include <vector>

#include "convert/errors.h"
#include "convert/mapped_file.h"

namespace kel::convert {

namespace {

using nlohmann::json;

constexpr int kMaxDepth = 32;
// Real files stay below 32 MB; parsed values take some ten times their text.
constexpr uint64_t kMaxTextBytes = uint64_t{256} << 20;

// Leaves the parser; caught in parseJson.
struct Refusal {
  std::string reason;
};

// Watches the parser's events for what the data format itself allows.
class Guard {
 public:
  bool operator()(int depth, json::parse_event_t event, const json& parsed) {
    if (depth > kMaxDepth) {
      throw Refusal{"is nested too deeply"};
    }
    switch (event) {
      case json::parse_event_t::object_start:
        keys.emplace_back();
        break;
      case json::parse_event_t::object_end:
        keys.pop_back();
        break;
      case json::parse_event_t::key: {
        const auto& key = parsed.get_ref<const std::string&>();
        if (!keys.back().insert(key).second) {
          throw Refusal{fmt::format("holds the key \"{}\" twice", printable(key))};
        }
        break;
      }
      default:
        break;
    }
    return true;
  }

 private:
  std::vector<std::unordered_set<std::string>> keys;  // of the objects that are open
};

}  // namespace

Status parseJson(std::string_view text, const std::string& what, json& out) {
  if (text.size() > kMaxTextBytes) {
    return malformed("{} has {} bytes, more than {}", what, text.size(), kMaxTextBytes);
  }
  try {
    Guard guard;
    out = json::parse(text, std::ref(guard));
    return Status::success();
  } catch (const Refusal& refusal) {
    return malformed("{} {}", what, refusal.reason);
  } catch (const json::parse_error& error) {
    return malformed("{} is not valid JSON (near byte {})", what, error.byte);
  } catch (const json::exception& error) {
    return malformed("{} cannot be read: {}", what, printable(error.what()));
  }
}

Status readJsonFile(const std::string& path, json& out) {
  MappedFile file;
  Status status = file.open(path);
  if (!status.ok()) {
    return status;
  }
  return parseJson(file.text(), path, out);
}

const json* jsonMember(const json& value, const char* key) {
  if (!value.is_object()) {
    return nullptr;
  }
  const auto found = value.find(key);
  return found == value.end() ? nullptr : &*found;
}

std::optional<uint64_t> jsonUnsigned(const json& value) {
  if (value.is_number_unsigned()) {
    return value.get<uint64_t>();
  }
  return std::nullopt;
}

}  // namespace kel::convert
