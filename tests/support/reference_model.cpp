#include "tests/support/reference_model.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kel::test {

namespace {

struct Matrix {
  size_t rows = 0;
  size_t cols = 0;
  Vector w;
};

double half(const uint8_t* p) {
  const unsigned bits = p[0] | (p[1] << 8);
  const double sign = (bits & 0x8000) != 0 ? -1 : 1;
  const int exponent = static_cast<int>(bits >> 10) & 31;
  const unsigned mantissa = bits & 1023;
  if (exponent == 31) {
    throw std::invalid_argument("scale is not finite");
  }
  return exponent == 0 ? sign * std::ldexp(mantissa, -24)
                       : sign * std::ldexp(1024 + mantissa, exponent - 25);
}

float singleFrom(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void decodeQ80(const uint8_t* block, Vector& out) {
  for (int j = 0; j < 32; ++j) {
    out.push_back(half(block) * static_cast<int8_t>(block[2 + j]));
  }
}

// Q4_K (qh null) and Q5_K: element e lies in sub-block e / 32; pairs of sub-blocks share bytes.
void decodeK(const uint8_t* block, const uint8_t* qh, const uint8_t* qs, Vector& out) {
  const uint8_t* packed = block + 4;
  for (int e = 0; e < 256; ++e) {
    const int sub = e / 32;
    const int scale =
        sub < 4 ? packed[sub] & 63 : (packed[sub + 4] & 15) | ((packed[sub - 4] >> 6) << 4);
    const int minimum =
        sub < 4 ? packed[sub + 4] & 63 : (packed[sub + 4] >> 4) | ((packed[sub] >> 6) << 4);
    const uint8_t pair = qs[32 * (sub / 2) + e % 32];
    int code = sub % 2 == 0 ? pair & 15 : pair >> 4;
    if (qh != nullptr) {
      code += 16 * ((qh[e % 32] >> sub) & 1);
    }
    out.push_back(half(block) * scale * code - half(block + 2) * minimum);
  }
}

Matrix load(const kel::ZYMLoader& loader, const std::string& name) {
  const kel::TensorView* view = loader.findTensor(name);
  if (view == nullptr) {
    throw std::invalid_argument("no tensor " + name);
  }
  Matrix m;
  m.cols = view->dims[0];
  m.rows = view->rank < 2 ? 1 : view->dims[1];
  const size_t n = m.rows * m.cols;
  m.w.reserve(n);
  const auto* at = static_cast<const uint8_t*>(view->data);
  while (m.w.size() < n) {
    switch (view->type) {
      case kel::QuantType::F32:
        m.w.push_back(static_cast<double>(
            singleFrom(at[0] | (at[1] << 8) | (at[2] << 16) | (uint32_t{at[3]} << 24))));
        at += 4;
        break;
      case kel::QuantType::BF16:
        m.w.push_back(
            static_cast<double>(singleFrom((uint32_t{at[0]} << 16) | (uint32_t{at[1]} << 24))));
        at += 2;
        break;
      case kel::QuantType::Q8_0:
        decodeQ80(at, m.w);
        at += 34;
        break;
      case kel::QuantType::Q4_K:
        decodeK(at, nullptr, at + 16, m.w);
        at += 144;
        break;
      case kel::QuantType::Q5_K:
        decodeK(at, at + 16, at + 48, m.w);
        at += 176;
        break;
      default:
        throw std::invalid_argument("type of " + name);
    }
  }
  return m;
}

// Every token at once: the token index is innermost, so that a compiler vectorises over it.
Vectors multiply(const Matrix& m, const Vectors& x) {
  const size_t tokens = x.size();
  Vector columns(m.cols * tokens);
  for (size_t t = 0; t < tokens; ++t) {
    for (size_t c = 0; c < m.cols; ++c) {
      columns[c * tokens + t] = x[t][c];
    }
  }
  Vectors y(tokens, Vector(m.rows));
  Vector sums(tokens);
  for (size_t r = 0; r < m.rows; ++r) {
    std::fill(sums.begin(), sums.end(), 0.0);
    for (size_t c = 0; c < m.cols; ++c) {
      const double w = m.w[r * m.cols + c];
      for (size_t t = 0; t < tokens; ++t) {
        sums[t] += w * columns[c * tokens + t];
      }
    }
    for (size_t t = 0; t < tokens; ++t) {
      y[t][r] = sums[t];
    }
  }
  return y;
}

double logistic(double v) {
  return 1 / (1 + std::exp(-v));
}

void normalise(double* x, size_t n, const Vector& w, double eps) {
  double squares = 0;
  for (size_t i = 0; i < n; ++i) {
    squares += x[i] * x[i];
  }
  const double inverse = 1 / std::sqrt(squares / static_cast<double>(n) + eps);
  for (size_t i = 0; i < n; ++i) {
    x[i] *= inverse * w[i];
  }
}

Vectors normalised(Vectors x, const Vector& w, double eps) {
  for (Vector& v : x) {
    normalise(v.data(), v.size(), w, eps);
  }
  return x;
}

Vectors sum(const Vectors& a, const Vectors& b) {
  Vectors s = a;
  for (size_t t = 0; t < s.size(); ++t) {
    for (size_t i = 0; i < s[t].size(); ++i) {
      s[t][i] += b[t][i];
    }
  }
  return s;
}

class Reference {
 public:
  Reference(const kel::ZYMLoader& modelLoader, std::string namePrefix,
            const kel::ModelShape& modelShape)
      : loader(modelLoader), prefix(std::move(namePrefix)), shape(modelShape) {}

  ReferenceLayer layer(const Vectors& x) {
    ReferenceLayer out;
    const Vectors xn = normalised(x, tensor("attn_norm.weight").w, shape.normEps);
    out.attn = has("ssm_out.weight") ? linear(xn, out) : full(xn, out);
    out.residual = sum(x, out.attn);
    out.normed = normalised(out.residual, tensor("post_attention_norm.weight").w, shape.normEps);
    out.ffn = feedForward(out.normed);
    out.out = sum(out.residual, out.ffn);
    return out;
  }

 private:
  bool has(const char* suffix) const { return loader.findTensor(prefix + suffix) != nullptr; }
  Matrix tensor(const char* suffix) const { return load(loader, prefix + suffix); }

  Vectors project(const char* suffix, const Vectors& x) const {
    return multiply(tensor(suffix), x);
  }

  void addBias(const char* suffix, Vectors& y) const {
    const Vector bias = tensor(suffix).w;
    for (Vector& v : y) {
      for (size_t i = 0; i < v.size(); ++i) {
        v[i] += bias[i];
      }
    }
  }

  Vectors feedForward(const Vectors& x) const {
    Vectors gate = project("ffn_gate.weight", x);
    const Vectors up = project("ffn_up.weight", x);
    for (size_t t = 0; t < gate.size(); ++t) {
      for (size_t i = 0; i < gate[t].size(); ++i) {
        gate[t][i] *= logistic(gate[t][i]) * up[t][i];
      }
    }
    return project("ffn_down.weight", gate);
  }

  void rotate(double* head, size_t position) const {
    const size_t half = shape.ropeDim / 2;
    for (size_t i = 0; i < half; ++i) {
      const double angle =
          static_cast<double>(position) *
          std::pow(shape.ropeBase, -2.0 * static_cast<double>(i) / static_cast<double>(2 * half));
      const double x0 = head[i];
      const double x1 = head[i + half];
      head[i] = std::cos(angle) * x0 - std::sin(angle) * x1;
      head[i + half] = std::sin(angle) * x0 + std::cos(angle) * x1;
    }
  }

  Vectors full(const Vectors& xn, ReferenceLayer& state) const {
    Vectors q = project("attn_q.weight", xn);
    Vectors k = project("attn_k.weight", xn);
    Vectors v = project("attn_v.weight", xn);
    if (has("attn_q.bias")) {
      addBias("attn_q.bias", q);
      addBias("attn_k.bias", k);
      addBias("attn_v.bias", v);
    }
    const Vector qNorm = tensor("attn_q_norm.weight").w;
    const Vector kNorm = tensor("attn_k_norm.weight").w;
    const size_t tokens = xn.size();
    const size_t dim = shape.headDim;
    Vectors att(tokens, Vector(shape.queryHeads * dim));
    for (size_t t = 0; t < tokens; ++t) {
      for (size_t g = 0; g < shape.kvHeads; ++g) {
        normalise(&k[t][g * dim], dim, kNorm, shape.normEps);
        rotate(&k[t][g * dim], t);
      }
      for (size_t h = 0; h < shape.queryHeads; ++h) {
        normalise(&q[t][h * 2 * dim], dim, qNorm, shape.normEps);
        rotate(&q[t][h * 2 * dim], t);
        attend(q, k, v, t, h, att[t]);
      }
    }
    for (size_t g = 0; g < shape.kvHeads; ++g) {
      for (size_t t = 0; t < tokens; ++t) {
        state.keys.insert(state.keys.end(), &k[t][g * dim], &k[t][g * dim] + dim);
        state.values.insert(state.values.end(), &v[t][g * dim], &v[t][g * dim] + dim);
      }
    }
    return project("attn_output.weight", att);
  }

  void attend(const Vectors& q, const Vectors& k, const Vectors& v, size_t t, size_t h,
              Vector& att) const {
    const size_t dim = shape.headDim;
    const size_t group = h / (shape.queryHeads / shape.kvHeads) * dim;
    Vector weights(t + 1);
    for (size_t p = 0; p <= t; ++p) {
      for (size_t d = 0; d < dim; ++d) {
        weights[p] += q[t][h * 2 * dim + d] * k[p][group + d];
      }
      weights[p] /= std::sqrt(static_cast<double>(dim));
    }
    const double highest = *std::max_element(weights.begin(), weights.end());
    double total = 0;
    for (double& w : weights) {
      w = std::exp(w - highest);
      total += w;
    }
    for (size_t d = 0; d < dim; ++d) {
      double o = 0;
      for (size_t p = 0; p <= t; ++p) {
        o += weights[p] / total * v[p][group + d];
      }
      att[h * dim + d] = o * logistic(q[t][h * 2 * dim + dim + d]);
    }
  }

  void unit(double* x, size_t n) const {
    double squares = 0;
    for (size_t i = 0; i < n; ++i) {
      squares += x[i] * x[i];
    }
    for (size_t i = 0; i < n; ++i) {
      x[i] /= std::sqrt(squares + shape.normEps);
    }
  }

  // Causal convolution over time with inputs of zero before the first token, then SiLU.
  Vectors convolved(const Vectors& qkv) const {
    const Matrix taps = tensor("ssm_conv1d.weight");
    Vectors out(qkv.size(), Vector(taps.rows));
    for (size_t t = 0; t < qkv.size(); ++t) {
      for (size_t c = 0; c < taps.rows; ++c) {
        double y = 0;
        for (size_t back = 0; back < shape.convTaps && back <= t; ++back) {
          y += taps.w[c * taps.cols + shape.convTaps - 1 - back] * qkv[t - back][c];
        }
        out[t][c] = y * logistic(y);
      }
    }
    return out;
  }

  Vectors linear(const Vectors& xn, ReferenceLayer& state) const {
    const size_t tokens = xn.size();
    const size_t keyHeads = shape.linearKeyHeads;
    const size_t valueHeads = shape.linearValueHeads;
    const size_t keyDim = shape.linearKeyDim;
    const size_t valueDim = shape.linearValueDim;
    const size_t keys = keyHeads * keyDim;  // queries come first, then keys, then values
    const Vectors qkv = project("attn_qkv.weight", xn);
    const Vectors z = project("attn_gate.weight", xn);
    const Vectors b = project("ssm_beta.weight", xn);
    const Vectors a = project("ssm_alpha.weight", xn);
    const Vector dtBias = tensor("ssm_dt.bias").w;
    const Vector rate = tensor("ssm_a").w;
    const Vector norm = tensor("ssm_norm.weight").w;
    Vectors conv = convolved(qkv);
    state.ssmState.assign(valueHeads * keyDim * valueDim, 0.0);
    Vectors o(tokens, Vector(valueHeads * valueDim));
    for (size_t t = 0; t < tokens; ++t) {
      for (size_t head = 0; head < 2 * keyHeads; ++head) {
        unit(&conv[t][head * keyDim], keyDim);
      }
      for (size_t h = 0; h < valueHeads; ++h) {
        const double decay = std::exp(std::log1p(std::exp(a[t][h] + dtBias[h])) * rate[h]);
        const double* query = &conv[t][(h % keyHeads) * keyDim];
        deltaRule(&state.ssmState[h * keyDim * valueDim], query, query + keys,
                  &conv[t][2 * keys + h * valueDim], decay, logistic(b[t][h]), &o[t][h * valueDim]);
        normalise(&o[t][h * valueDim], valueDim, norm, shape.normEps);
        for (size_t d = 0; d < valueDim; ++d) {
          o[t][h * valueDim + d] *= z[t][h * valueDim + d] * logistic(z[t][h * valueDim + d]);
        }
      }
    }
    for (size_t c = 0; c < qkv[0].size(); ++c) {
      for (size_t back = shape.convTaps - 1; back > 0; --back) {
        state.convState.push_back(tokens >= back ? qkv[tokens - back][c] : 0.0);
      }
    }
    return project("ssm_out.weight", o);
  }

  // S' = decay S + k (beta (v - decay S^T k))^T; o = S'^T q / sqrt(key dim).
  void deltaRule(double* S, const double* q, const double* k, const double* v, double decay,
                 double beta, double* o) const {
    const size_t keyDim = shape.linearKeyDim;
    const size_t valueDim = shape.linearValueDim;
    Vector update(v, v + valueDim);
    for (size_t i = 0; i < keyDim; ++i) {
      for (size_t j = 0; j < valueDim; ++j) {
        update[j] -= decay * S[i * valueDim + j] * k[i];
      }
    }
    std::fill(o, o + valueDim, 0.0);
    for (size_t i = 0; i < keyDim; ++i) {
      for (size_t j = 0; j < valueDim; ++j) {
        S[i * valueDim + j] = decay * S[i * valueDim + j] + k[i] * beta * update[j];
        o[j] += S[i * valueDim + j] * q[i] / std::sqrt(static_cast<double>(keyDim));
      }
    }
  }

  const kel::ZYMLoader& loader;
  std::string prefix;
  kel::ModelShape shape;
};

}  // namespace

ReferenceRun runReference(const kel::ZYMLoader& loader, const std::vector<size_t>& tokens,
                          const kel::ModelShape& shape) {
  const Matrix table = load(loader, "token_embd.weight");
  Vectors x;
  for (const size_t token : tokens) {
    const auto row = table.w.begin() + static_cast<std::ptrdiff_t>(token * table.cols);
    x.emplace_back(row, row + static_cast<std::ptrdiff_t>(table.cols));
  }
  ReferenceRun run;
  for (uint32_t i = 0; i < shape.layers; ++i) {
    run.layers.push_back(Reference(loader, "blk." + std::to_string(i) + ".", shape).layer(x));
    x = run.layers.back().out;
  }
  run.result = x;
  const Matrix head = shape.ownOutput ? load(loader, "output.weight") : table;
  run.logits = multiply(head, normalised(x, load(loader, "output_norm.weight").w, shape.normEps));
  return run;
}

}  // namespace kel::test
