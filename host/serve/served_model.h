// The model that requests are about: what it can do, and what is asked of it where a request does
// not say.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat_format.h"
#include "engine/sampler_settings.h"
#include "host/serve/api_services.h"

namespace zym {

struct ServedModel {
  explicit ServedModel(ApiServices apiServices);

  const engine::Model& model() const { return *services.model; }
  bool hasName(std::string_view name) const;
  const std::string& name() const { return services.names.front(); }

  // "PREFIX" and 24 hexadecimal digits.
  std::string newId(std::string_view prefix) const;

  bool isSpecial(int32_t id) const;
  // The bytes that a token stands for; they need not be whole characters.
  std::string tokenBytes(int32_t id) const;

  ApiServices services;
  bool canThink = false;
  bool thinksByDefault = false;
  bool knowsTools = false;
  int32_t thinkEnd = -1;   // ids; negative: the vocabulary has none
  int32_t callBegin = -1;  //
  int32_t callEnd = -1;    //
  engine::SamplerSettings thinkingSampling;
  engine::SamplerSettings plainSampling;
};

using SharedModel = std::shared_ptr<const ServedModel>;

}  // namespace zym
