#include "engine/ncnn_model.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <variant>

#include "engine/estimate_error.h"
#include "support/files.h"

namespace tarnbloom {
namespace {

[[noreturn]] void refuse(const std::string& detail) { throw EstimateError::modelFailed(detail); }

constexpr int kMagic = 7767517;
constexpr uint32_t kHalfTag = 0x01306B47;

using ParamValue = std::variant<int, float, std::vector<float>>;

struct Layer {
  std::string type;
  std::string name;
  std::vector<std::string> bottoms;
  std::vector<std::string> tops;
  std::map<int, ParamValue> params;

  int integer(int key, int fallback) const {
    const auto found = params.find(key);
    if (found == params.end()) return fallback;
    if (const int* v = std::get_if<int>(&found->second)) return *v;
    if (const float* f = std::get_if<float>(&found->second)) return static_cast<int>(*f);
    refuse("layer " + name + " has a list where a number belongs (key " + std::to_string(key) + ")");
  }
  float number(int key, float fallback) const {
    const auto found = params.find(key);
    if (found == params.end()) return fallback;
    if (const float* f = std::get_if<float>(&found->second)) return *f;
    if (const int* v = std::get_if<int>(&found->second)) return static_cast<float>(*v);
    refuse("layer " + name + " has a list where a number belongs (key " + std::to_string(key) + ")");
  }
};

ParamValue parseValue(std::string_view text, bool isArray, const std::string& layer) {
  auto parseOne = [&](std::string_view t) -> ParamValue {
    const bool isFloat = t.find_first_of(".eE") != std::string_view::npos;
    if (isFloat) {
      float f = 0;
      const auto r = std::from_chars(t.data(), t.data() + t.size(), f);
      if (r.ec != std::errc() || r.ptr != t.data() + t.size()) refuse("unreadable value in layer " + layer);
      return f;
    }
    int v = 0;
    const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
    if (r.ec != std::errc() || r.ptr != t.data() + t.size()) refuse("unreadable value in layer " + layer);
    return v;
  };
  if (!isArray) return parseOne(text);
  std::vector<float> values;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const auto piece = text.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
    const ParamValue v = parseOne(piece);
    values.push_back(std::holds_alternative<int>(v) ? static_cast<float>(std::get<int>(v)) : std::get<float>(v));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  // The first entry of an ncnn array is its length.
  if (values.empty() || values.front() != static_cast<float>(values.size() - 1))
    refuse("array of the wrong length in layer " + layer);
  values.erase(values.begin());
  return values;
}

std::vector<Layer> parseGraph(std::string_view text) {
  std::istringstream in{std::string(text)};
  int magic = 0, layerCount = 0, blobCount = 0;
  if (!(in >> magic) || magic != kMagic) refuse("not an ncnn param file");
  if (!(in >> layerCount >> blobCount) || layerCount < 1 || layerCount > 10000 || blobCount < 1)
    refuse("the layer and blob counts are missing");
  std::string line;
  std::getline(in, line);
  std::vector<Layer> layers;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    Layer layer;
    int bottoms = 0, tops = 0;
    if (!(fields >> layer.type)) continue;  // blank line
    if (!(fields >> layer.name >> bottoms >> tops) || bottoms < 0 || tops < 0 || bottoms > 16 || tops > 16)
      refuse("malformed layer line “" + line.substr(0, 80) + "”");
    layer.bottoms.resize(bottoms);
    layer.tops.resize(tops);
    for (auto& b : layer.bottoms)
      if (!(fields >> b)) refuse("layer " + layer.name + " lacks an input name");
    for (auto& t : layer.tops)
      if (!(fields >> t)) refuse("layer " + layer.name + " lacks an output name");
    std::string pair;
    while (fields >> pair) {
      const auto eq = pair.find('=');
      if (eq == std::string::npos) refuse("malformed parameter in layer " + layer.name);
      int key = 0;
      const auto r = std::from_chars(pair.data(), pair.data() + eq, key);
      if (r.ec != std::errc() || r.ptr != pair.data() + eq) refuse("malformed parameter in layer " + layer.name);
      const bool isArray = key <= -23300;
      if (isArray) key = -key - 23300;
      layer.params[key] = parseValue(std::string_view(pair).substr(eq + 1), isArray, layer.name);
    }
    layers.push_back(std::move(layer));
  }
  if (static_cast<int>(layers.size()) != layerCount)
    refuse("the param file lists " + std::to_string(layers.size()) + " layers but declares " +
           std::to_string(layerCount));
  return layers;
}

float halfToFloat(uint16_t h) {
  const uint32_t sign = (h & 0x8000u) << 16;
  uint32_t exponent = (h >> 10) & 0x1f;
  uint32_t mantissa = h & 0x3ffu;
  uint32_t bits;
  if (exponent == 0) {
    if (mantissa == 0) {
      bits = sign;
    } else {  // subnormal: normalise
      exponent = 1;
      while (!(mantissa & 0x400u)) {
        mantissa <<= 1;
        --exponent;
      }
      mantissa &= 0x3ffu;
      bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
    }
  } else if (exponent == 31) {
    bits = sign | 0x7f800000u | (mantissa << 13);
  } else {
    bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
  }
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

// Reads ncnn's weight blob in order: convolution weights carry a 4-byte
// flag (zero for float32, a tag for float16), biases and slopes do not.
class WeightReader {
 public:
  explicit WeightReader(std::span<const std::byte> bytes) : m_bytes(bytes) {}

  std::vector<float> tagged(size_t count, const std::string& layer) {
    uint32_t flag = 0;
    take(&flag, 4, layer);
    std::vector<float> values(count);
    if (flag == kHalfTag) {
      std::vector<uint16_t> halves(count);
      take(halves.data(), count * 2, layer);
      if ((count * 2) % 4) skip(4 - (count * 2) % 4, layer);  // data is padded to 4 bytes
      for (size_t i = 0; i < count; ++i) values[i] = halfToFloat(halves[i]);
    } else if (flag == 0) {
      take(values.data(), count * 4, layer);
    } else {
      refuse("layer " + layer + " stores its weights quantised, which is not supported");
    }
    return values;
  }

  std::vector<float> plain(size_t count, const std::string& layer) {
    std::vector<float> values(count);
    take(values.data(), count * 4, layer);
    return values;
  }

  bool atEnd() const { return m_at == m_bytes.size(); }

 private:
  void take(void* out, size_t size, const std::string& layer) {
    if (size > m_bytes.size() - m_at) refuse("the weight file ends inside layer " + layer);
    std::memcpy(out, m_bytes.data() + m_at, size);
    m_at += size;
  }
  void skip(size_t size, const std::string& layer) {
    if (size > m_bytes.size() - m_at) refuse("the weight file ends inside layer " + layer);
    m_at += size;
  }

  std::span<const std::byte> m_bytes;
  size_t m_at = 0;
};

const Layer& onlyConsumer(const std::vector<Layer>& layers, const std::string& blob, const std::string& after) {
  const Layer* found = nullptr;
  for (const auto& layer : layers)
    for (const auto& bottom : layer.bottoms)
      if (bottom == blob) {
        if (found) refuse("the output of " + after + " feeds more than one layer");
        found = &layer;
      }
  if (!found) refuse("the output of " + after + " is not used");
  return *found;
}

}  // namespace

SrvggNetwork SrvggNetwork::parse(std::string_view paramText, std::span<const std::byte> weights) {
  const std::vector<Layer> layers = parseGraph(paramText);
  for (const auto& layer : layers)
    if (layer.type != "Input" && layer.type != "Split" && layer.type != "Convolution" &&
        layer.type != "PReLU" && layer.type != "PixelShuffle" && layer.type != "Interp" &&
        layer.type != "BinaryOp")
      refuse("unsupported layer type " + layer.type + " (" + layer.name + ")");

  const Layer& input = layers.front();
  if (input.type != "Input" || input.tops.size() != 1) refuse("the first layer must be the input");
  const Layer& split = onlyConsumer(layers, input.tops[0], input.name);
  if (split.type != "Split" || split.tops.size() != 2) refuse("the input must be split into two branches");

  // Either branch may lead the convolutions; the other feeds the upsampling.
  WeightReader reader(weights);
  SrvggNetwork network;
  const Layer* convolutionsStart = nullptr;
  const Layer* interp = nullptr;
  for (const auto& branch : split.tops) {
    const Layer& next = onlyConsumer(layers, branch, split.name);
    if (next.type == "Convolution") convolutionsStart = &next;
    if (next.type == "Interp") interp = &next;
  }
  if (!convolutionsStart || !interp) refuse("the network must have a convolution branch and an upsampling branch");

  // Weights are stored in layer order, which is also the order in the file.
  const Layer* layer = convolutionsStart;
  int channels = 3;
  while (layer->type == "Convolution") {
    NetworkConvolution conv;
    conv.inputChannels = channels;
    conv.outputChannels = layer->integer(0, 0);
    const int kernel = layer->integer(1, 0);
    const int kernelH = layer->integer(11, kernel);
    const int dilation = layer->integer(2, 1);
    const int stride = layer->integer(3, 1);
    const int pad = layer->integer(4, 0);
    const int padTop = layer->integer(14, pad);
    const int hasBias = layer->integer(5, 0);
    const int weightCount = layer->integer(6, 0);
    if (kernel != 3 || kernelH != 3 || dilation != 1 || stride != 1 || pad != 1 || padTop != 1)
      refuse("layer " + layer->name + " is not a 3 × 3 convolution with stride 1 and padding 1");
    if (layer->integer(9, 0) != 0 || layer->integer(8, 0) != 0 || layer->integer(7, 1) != 1)
      refuse("layer " + layer->name + " uses a fused activation, quantisation or groups");
    if (conv.outputChannels < 1 || conv.outputChannels > 4096 ||
        static_cast<int64_t>(weightCount) != int64_t{conv.outputChannels} * channels * 9)
      refuse("layer " + layer->name + " declares " + std::to_string(weightCount) + " weights for " +
             std::to_string(channels) + " → " + std::to_string(conv.outputChannels) + " channels");
    conv.weights = reader.tagged(static_cast<size_t>(weightCount), layer->name);
    if (hasBias) conv.bias = reader.plain(static_cast<size_t>(conv.outputChannels), layer->name);
    else conv.bias.assign(static_cast<size_t>(conv.outputChannels), 0.0f);
    channels = conv.outputChannels;

    layer = &onlyConsumer(layers, layer->tops.at(0), layer->name);
    if (layer->type == "PReLU") {
      const int slopes = layer->integer(0, 0);
      if (slopes != channels && slopes != 1)
        refuse("layer " + layer->name + " has " + std::to_string(slopes) + " slopes for " +
               std::to_string(channels) + " channels");
      conv.preluSlopes = reader.plain(static_cast<size_t>(slopes), layer->name);
      if (slopes == 1) conv.preluSlopes.assign(static_cast<size_t>(channels), conv.preluSlopes[0]);
      layer = &onlyConsumer(layers, layer->tops.at(0), layer->name);
    }
    network.convolutions.push_back(std::move(conv));
  }
  if (network.convolutions.size() < 2) refuse("the network needs at least two convolutions");
  if (!network.convolutions.back().preluSlopes.empty()) refuse("the last convolution must not be followed by PReLU");
  for (size_t i = 0; i + 1 < network.convolutions.size(); ++i)
    if (network.convolutions[i].preluSlopes.empty()) refuse("every convolution but the last must be followed by PReLU");

  if (layer->type != "PixelShuffle") refuse("the convolutions must end in a pixel shuffle, not " + layer->type);
  network.upscale = layer->integer(0, 1);
  if (network.upscale < 1 || network.upscale > 8 || layer->integer(1, 0) != 0 ||
      channels != 3 * network.upscale * network.upscale)
    refuse("the pixel shuffle by " + std::to_string(network.upscale) + " does not give 3 channels from " +
           std::to_string(channels));
  const Layer& add = onlyConsumer(layers, layer->tops.at(0), layer->name);

  if (interp->integer(0, 0) != 1 || interp->number(1, 1) != static_cast<float>(network.upscale) ||
      interp->number(2, 1) != static_cast<float>(network.upscale))
    refuse("the upsampling branch must be nearest-neighbour by the same factor");
  if (&onlyConsumer(layers, interp->tops.at(0), interp->name) != &add || add.type != "BinaryOp" ||
      add.integer(0, 0) != 0 || add.bottoms.size() != 2)
    refuse("the two branches must be joined by an addition");
  if (!reader.atEnd()) refuse("the weight file is longer than the network needs");
  return network;
}

SrvggNetwork SrvggNetwork::read(const std::filesystem::path& param) {
  std::filesystem::path bin = param;
  bin.replace_extension(".bin");
  std::vector<std::byte> text, weights;
  try {
    text = readWholeFile(param, size_t{1} << 20);
    weights = readWholeFile(bin, size_t{256} << 20);
  } catch (const FileError& error) {
    refuse(error.description());
  }
  return parse(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()), weights);
}

double SrvggNetwork::flopsPerInputPixel() const {
  double flops = 0;
  for (const auto& conv : convolutions) flops += 2.0 * conv.inputChannels * conv.outputChannels * 9;
  return flops;
}

}  // namespace tarnbloom
