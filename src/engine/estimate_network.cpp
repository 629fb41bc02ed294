#include "engine/estimate_network.h"

#include <dnnl.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "engine/estimate_error.h"

namespace tarnbloom {
namespace {

using dnnl::memory;
using Tag = memory::format_tag;
using Type = memory::data_type;

struct Layer {
  dnnl::convolution_forward primitive;
  memory weights;
  memory bias;
  dnnl::prelu_forward prelu;  // in place on dst; absent for the last layer
  memory slopes;
  // Slopes for preluBlocked(), padded to whole blocks; used instead of
  // `prelu` when dst is in 16-channel blocks.
  std::vector<float> blockSlopes;
  memory dst;
};

constexpr int kBlock = 16;

// PReLU in place on activations laid out in 16-channel blocks (aBcd16b:
// batch, channel block, row, column, 16 channels). oneDNN 2.6 has only its
// reference implementation for that layout, which took six times as long
// as the Winograd convolution before it.
void preluBlocked(float* data, const std::vector<float>& slopes, int batch, int height, int width) {
  const int blocks = static_cast<int>(slopes.size()) / kBlock;
  const size_t row = static_cast<size_t>(width) * kBlock;
#pragma omp parallel for collapse(3) schedule(static)
  for (int b = 0; b < batch; ++b)
    for (int block = 0; block < blocks; ++block)
      for (int y = 0; y < height; ++y) {
        float* p = data + ((static_cast<size_t>(b) * blocks + block) * height + y) * row;
        const float* s = slopes.data() + block * kBlock;
        // Written without a branch so that the compiler vectorises it; the
        // result is the same to the bit as slope · x for x < 0, else x.
        for (size_t i = 0; i < row; i += kBlock)
          for (int l = 0; l < kBlock; ++l)
            p[i + l] = std::max(p[i + l], 0.0f) + s[l] * std::min(p[i + l], 0.0f);
      }
}

}  // namespace

struct EstimateNetwork::Impl {
  dnnl::engine engine{dnnl::engine::kind::cpu, 0};
  dnnl::stream stream{engine};
  int height = 0, width = 0, batch = 0, upscale = 4, lastChannels = 0;
  memory userInput;   // nchw f32, filled from the caller's buffer
  memory netInput;    // the first layer's source layout
  dnnl::reorder inputReorder;
  bool reorderInput = false;
  std::vector<Layer> layers;
  memory plainOutput;  // nchw f32 of the last convolution
  dnnl::reorder outputReorder;
  bool reorderOutput = false;
  // One scratchpad for every step, which run one after another. oneDNN's
  // own scratchpad belongs to the thread that built a primitive; the
  // network is built on whichever thread asks first and then runs on
  // preview and export threads, where Winograd's transform buffers were
  // found missing (a write through a null pointer).
  memory scratchpad;
  dnnl::primitive_attr attributes;

  // Throws dnnl::error when oneDNN refuses a layer.
  void build(const SrvggNetwork& network, Type activation, bool winograd);
};

bool EstimateNetwork::processorHasBf16() {
  const auto isa = static_cast<int>(dnnl::get_effective_cpu_isa());
  return (isa & dnnl_cpu_isa_avx512_core_bf16) == dnnl_cpu_isa_avx512_core_bf16;
}

EstimateNetwork::Precision EstimateNetwork::defaultPrecision() {
  // BF16 through all 34 layers moved single output samples by up to 7/255
  // from the float32 result, more than an estimate may drift, so float32
  // stays the default; BF16 is there for those who ask.
  if (const char* asked = std::getenv("TARNBLOOM_ESTIMATE_PRECISION");
      asked && std::strcmp(asked, "bf16") == 0 && processorHasBf16())
    return Precision::bf16;
  return Precision::fp32;
}

EstimateNetwork::Convolution EstimateNetwork::defaultConvolution() {
  const char* asked = std::getenv("TARNBLOOM_ESTIMATE_CONVOLUTION");
  return asked && std::strcmp(asked, "direct") == 0 ? Convolution::direct : Convolution::winograd;
}

EstimateNetwork::EstimateNetwork(const SrvggNetwork& network, int height, int width, int batch,
                                 Precision precision, Convolution convolution)
    : m_impl(std::make_unique<Impl>()),
      m_precision(precision),
      m_convolution(precision == Precision::fp32 ? convolution : Convolution::direct),
      m_upscale(network.upscale) {
  Impl& n = *m_impl;
  n.height = height;
  n.width = width;
  n.batch = batch;
  n.upscale = network.upscale;
  const Type activation = precision == Precision::bf16 ? Type::bf16 : Type::f32;
  if (m_convolution == Convolution::winograd) {
    try {
      n.build(network, activation, true);
      return;
    } catch (const dnnl::error&) {
      // oneDNN computes Winograd only on some processors (AVX-512) and
      // shapes; direct convolution runs everywhere.
      m_convolution = Convolution::direct;
    }
  }
  try {
    n.build(network, activation, false);
  } catch (const dnnl::error& error) {
    throw EstimateError::modelFailed(std::string("the inference library refused the network: ") + error.what());
  }
}

void EstimateNetwork::Impl::build(const SrvggNetwork& network, Type activation, bool winograd) {
  layers.clear();
  attributes.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  size_t scratchpadBytes = 1;  // oneDNN refuses an empty memory
  auto needs = [&](const auto& pd) { scratchpadBytes = std::max(scratchpadBytes, pd.scratchpad_desc().get_size()); };
  userInput = memory({{batch, 3, height, width}, Type::f32, Tag::nchw}, engine);
  memory::desc source({batch, 3, height, width}, activation, Tag::any);
  memory spares[2];
  for (size_t i = 0; i < network.convolutions.size(); ++i) {
    const NetworkConvolution& conv = network.convolutions[i];
    const bool last = i + 1 == network.convolutions.size();
    const memory::dims dims = {batch, conv.outputChannels, height, width};
    const memory::desc weightsAny({conv.outputChannels, conv.inputChannels, 3, 3}, activation, Tag::any);
    const memory::desc biasDesc({conv.outputChannels}, Type::f32, Tag::a);
    // Winograd layers read and write 16-channel blocks; the first layer
    // must hand them that layout, since left to itself it writes
    // channels-last. It stays direct: transforming three colour channels
    // costs far more than the multiplications it would save.
    const bool transformed = winograd && i > 0;
    const Tag dstTag = winograd && !last ? Tag::aBcd16b : Tag::any;
    const memory::desc dstDesc(dims, last ? Type::f32 : activation, dstTag);
    const auto algorithm =
        transformed ? dnnl::algorithm::convolution_winograd : dnnl::algorithm::convolution_direct;
    const dnnl::convolution_forward::desc desc(dnnl::prop_kind::forward_inference, algorithm, source,
                                               weightsAny, biasDesc, dstDesc, {1, 1}, {1, 1}, {1, 1});
    // PReLU runs as its own step in place: oneDNN 2.6 computes a
    // convolution with a fused PReLU post-op only in its reference
    // implementation, which is a hundred times slower.
    const dnnl::convolution_forward::primitive_desc pd(desc, attributes, engine);
    needs(pd);

    Layer layer;
    layer.primitive = dnnl::convolution_forward(pd);
    // Weights go once into the layout the kernel wants (for Winograd,
    // already transformed).
    memory userWeights({{conv.outputChannels, conv.inputChannels, 3, 3}, Type::f32, Tag::oihw}, engine,
                       const_cast<float*>(conv.weights.data()));
    layer.weights = memory(pd.weights_desc(), engine);
    dnnl::reorder(userWeights, layer.weights).execute(stream, userWeights, layer.weights);
    layer.bias = memory(biasDesc, engine);
    std::memcpy(layer.bias.get_data_handle(), conv.bias.data(), conv.bias.size() * sizeof(float));
    // Activations alternate between two buffers: a layer reads the one
    // its predecessor wrote. Holding one per layer would cost 16 MB each.
    memory& spare = spares[i % 2];
    if (!spare || spare.get_desc() != pd.dst_desc()) spare = memory(pd.dst_desc(), engine);
    layer.dst = spare;
    if (!conv.preluSlopes.empty() && dstTag == Tag::aBcd16b) {
      layer.blockSlopes.assign((conv.outputChannels + kBlock - 1) / kBlock * kBlock, 0.0f);
      std::copy(conv.preluSlopes.begin(), conv.preluSlopes.end(), layer.blockSlopes.begin());
    } else if (!conv.preluSlopes.empty()) {
      const memory::desc slopesDesc({1, conv.outputChannels, 1, 1}, Type::f32, Tag::nchw);
      const dnnl::prelu_forward::primitive_desc preluPd(
          {dnnl::prop_kind::forward_inference, pd.dst_desc(), slopesDesc}, attributes, engine);
      needs(preluPd);
      layer.prelu = dnnl::prelu_forward(preluPd);
      layer.slopes = memory(preluPd.weights_desc(), engine);
      memory userSlopes(slopesDesc, engine, const_cast<float*>(conv.preluSlopes.data()));
      dnnl::reorder(userSlopes, layer.slopes).execute(stream, userSlopes, layer.slopes);
    }
    if (i == 0) {
      netInput = memory(pd.src_desc(), engine);
      reorderInput = pd.src_desc() != userInput.get_desc();
      if (reorderInput) {
        const dnnl::reorder::primitive_desc reorderPd(userInput, netInput, attributes);
        needs(reorderPd);
        inputReorder = dnnl::reorder(reorderPd);
      }
    }
    // The next layer reads this layer's output exactly as it is laid out.
    source = pd.dst_desc();
    layers.push_back(std::move(layer));
    if (last) lastChannels = conv.outputChannels;
  }
  plainOutput = memory({{batch, lastChannels, height, width}, Type::f32, Tag::nchw}, engine);
  reorderOutput = layers.back().dst.get_desc() != plainOutput.get_desc();
  if (reorderOutput) {
    const dnnl::reorder::primitive_desc reorderPd(layers.back().dst, plainOutput, attributes);
    needs(reorderPd);
    outputReorder = dnnl::reorder(reorderPd);
  }
  scratchpad = memory({{static_cast<memory::dim>(scratchpadBytes)}, Type::u8, Tag::a}, engine);
  stream.wait();
}

EstimateNetwork::~EstimateNetwork() = default;

void EstimateNetwork::infer(const float* input, float* output) {
  Impl& n = *m_impl;
  const size_t plane = static_cast<size_t>(n.height) * n.width;
  try {
    std::memcpy(n.userInput.get_data_handle(), input, sizeof(float) * 3 * plane * n.batch);
    if (n.reorderInput)
      n.inputReorder.execute(n.stream, {{DNNL_ARG_FROM, n.userInput},
                                        {DNNL_ARG_TO, n.netInput},
                                        {DNNL_ARG_SCRATCHPAD, n.scratchpad}});
    const memory& first = n.reorderInput ? n.netInput : n.userInput;
    const memory* source = &first;
    for (Layer& layer : n.layers) {
      layer.primitive.execute(n.stream, {{DNNL_ARG_SRC, *source},
                                         {DNNL_ARG_WEIGHTS, layer.weights},
                                         {DNNL_ARG_BIAS, layer.bias},
                                         {DNNL_ARG_DST, layer.dst},
                                         {DNNL_ARG_SCRATCHPAD, n.scratchpad}});
      if (layer.slopes)
        layer.prelu.execute(n.stream, {{DNNL_ARG_SRC, layer.dst},
                                       {DNNL_ARG_WEIGHTS, layer.slopes},
                                       {DNNL_ARG_DST, layer.dst},
                                       {DNNL_ARG_SCRATCHPAD, n.scratchpad}});
      if (!layer.blockSlopes.empty()) {
        n.stream.wait();
        preluBlocked(static_cast<float*>(layer.dst.get_data_handle()), layer.blockSlopes, n.batch,
                     n.height, n.width);
      }
      source = &layer.dst;
    }
    if (n.reorderOutput)
      n.outputReorder.execute(n.stream, {{DNNL_ARG_FROM, n.layers.back().dst},
                                         {DNNL_ARG_TO, n.plainOutput},
                                         {DNNL_ARG_SCRATCHPAD, n.scratchpad}});
    n.stream.wait();
  } catch (const dnnl::error& error) {
    throw EstimateError::modelFailed(std::string("inference failed: ") + error.what());
  }

  // Pixel shuffle (channel c·r² + i·r + j goes to colour c at offset (i, j))
  // plus the input upsampled by nearest neighbour.
  const float* features = static_cast<const float*>((n.reorderOutput ? n.plainOutput : n.layers.back().dst).get_data_handle());
  const int r = n.upscale;
  const int outWidth = n.width * r;
  const size_t outPlane = plane * r * r;
#pragma omp parallel for collapse(2) schedule(static)
  for (int b = 0; b < n.batch; ++b)
    for (int c = 0; c < 3; ++c) {
      const float* in = input + (static_cast<size_t>(b) * 3 + c) * plane;
      float* out = output + (static_cast<size_t>(b) * 3 + c) * outPlane;
      const float* f = features + (static_cast<size_t>(b) * n.lastChannels + c * r * r) * plane;
      for (int y = 0; y < n.height; ++y)
        for (int i = 0; i < r; ++i) {
          float* row = out + (static_cast<size_t>(y) * r + i) * outWidth;
          for (int x = 0; x < n.width; ++x) {
            const float base = in[static_cast<size_t>(y) * n.width + x];
            for (int j = 0; j < r; ++j)
              row[x * r + j] = f[(static_cast<size_t>(i) * r + j) * plane + static_cast<size_t>(y) * n.width + x] + base;
          }
        }
    }
}

std::string EstimateNetwork::precisionText(Precision precision, Convolution convolution) {
  const std::string arithmetic =
      precision == Precision::bf16
          ? "BF16 weights and activations with float32 accumulation (oneDNN, CPU)"
          : convolution == Convolution::winograd
                ? "float32 weights, activations and accumulation (oneDNN, CPU; Winograd convolution "
                  "after the first layer)"
                : "float32 weights, activations and accumulation (oneDNN, CPU)";
  return "float32 I/O; " + arithmetic +
         "; float16 model weights widened; 8-bit sRGB source encoding; 8-bit premultiplied sRGB/alpha mosaic";
}

}  // namespace tarnbloom
