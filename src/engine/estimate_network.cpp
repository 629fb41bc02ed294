#include "engine/estimate_network.h"

#include <dnnl.hpp>

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
  memory dst;
};

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

EstimateNetwork::EstimateNetwork(const SrvggNetwork& network, int height, int width, int batch,
                                 Precision precision)
    : m_impl(std::make_unique<Impl>()), m_precision(precision), m_upscale(network.upscale) {
  Impl& n = *m_impl;
  n.height = height;
  n.width = width;
  n.batch = batch;
  n.upscale = network.upscale;
  const Type activation = precision == Precision::bf16 ? Type::bf16 : Type::f32;
  try {
    n.userInput = memory({{batch, 3, height, width}, Type::f32, Tag::nchw}, n.engine);
    memory::desc source({batch, 3, height, width}, activation, Tag::any);
    memory spares[2];
    for (size_t i = 0; i < network.convolutions.size(); ++i) {
      const NetworkConvolution& conv = network.convolutions[i];
      const bool last = i + 1 == network.convolutions.size();
      const memory::dims dims = {batch, conv.outputChannels, height, width};
      const memory::desc weightsAny({conv.outputChannels, conv.inputChannels, 3, 3}, activation, Tag::any);
      const memory::desc biasDesc({conv.outputChannels}, Type::f32, Tag::a);
      const memory::desc dstAny(dims, last ? Type::f32 : activation, Tag::any);
      const dnnl::convolution_forward::desc desc(dnnl::prop_kind::forward_inference,
                                                 dnnl::algorithm::convolution_direct, source, weightsAny,
                                                 biasDesc, dstAny, {1, 1}, {1, 1}, {1, 1});
      // PReLU runs as its own primitive in place: oneDNN 2.6 computes a
      // convolution with a fused PReLU post-op only in its reference
      // implementation, which is a hundred times slower.
      const dnnl::convolution_forward::primitive_desc pd(desc, n.engine);

      Layer layer;
      layer.primitive = dnnl::convolution_forward(pd);
      // Weights go once into the layout the kernel wants.
      memory userWeights({{conv.outputChannels, conv.inputChannels, 3, 3}, Type::f32, Tag::oihw}, n.engine,
                         const_cast<float*>(conv.weights.data()));
      layer.weights = memory(pd.weights_desc(), n.engine);
      dnnl::reorder(userWeights, layer.weights).execute(n.stream, userWeights, layer.weights);
      layer.bias = memory(biasDesc, n.engine);
      std::memcpy(layer.bias.get_data_handle(), conv.bias.data(), conv.bias.size() * sizeof(float));
      // Activations alternate between two buffers: a layer reads the one
      // its predecessor wrote. Holding one per layer would cost 16 MB each.
      memory& spare = spares[i % 2];
      if (!spare || spare.get_desc() != pd.dst_desc()) spare = memory(pd.dst_desc(), n.engine);
      layer.dst = spare;
      if (!conv.preluSlopes.empty()) {
        const memory::desc slopesDesc({1, conv.outputChannels, 1, 1}, Type::f32, Tag::nchw);
        const dnnl::prelu_forward::primitive_desc preluPd(
            {dnnl::prop_kind::forward_inference, pd.dst_desc(), slopesDesc}, n.engine);
        layer.prelu = dnnl::prelu_forward(preluPd);
        layer.slopes = memory(preluPd.weights_desc(), n.engine);
        memory userSlopes(slopesDesc, n.engine, const_cast<float*>(conv.preluSlopes.data()));
        dnnl::reorder(userSlopes, layer.slopes).execute(n.stream, userSlopes, layer.slopes);
      }
      if (i == 0) {
        n.netInput = memory(pd.src_desc(), n.engine);
        n.reorderInput = pd.src_desc() != n.userInput.get_desc();
        if (n.reorderInput) n.inputReorder = dnnl::reorder(n.userInput, n.netInput);
      }
      // The next layer reads this layer's output exactly as it is laid out.
      source = pd.dst_desc();
      n.layers.push_back(std::move(layer));
      if (last) n.lastChannels = conv.outputChannels;
    }
    n.plainOutput = memory({{batch, n.lastChannels, height, width}, Type::f32, Tag::nchw}, n.engine);
    n.reorderOutput = n.layers.back().dst.get_desc() != n.plainOutput.get_desc();
    if (n.reorderOutput) n.outputReorder = dnnl::reorder(n.layers.back().dst, n.plainOutput);
    n.stream.wait();
  } catch (const dnnl::error& error) {
    throw EstimateError::modelFailed(std::string("the inference library refused the network: ") + error.what());
  }
}

EstimateNetwork::~EstimateNetwork() = default;

void EstimateNetwork::infer(const float* input, float* output) {
  Impl& n = *m_impl;
  const size_t plane = static_cast<size_t>(n.height) * n.width;
  try {
    std::memcpy(n.userInput.get_data_handle(), input, sizeof(float) * 3 * plane * n.batch);
    if (n.reorderInput)
      n.inputReorder.execute(n.stream, n.userInput, n.netInput);
    const memory& first = n.reorderInput ? n.netInput : n.userInput;
    const memory* source = &first;
    for (Layer& layer : n.layers) {
      layer.primitive.execute(n.stream, {{DNNL_ARG_SRC, *source},
                                         {DNNL_ARG_WEIGHTS, layer.weights},
                                         {DNNL_ARG_BIAS, layer.bias},
                                         {DNNL_ARG_DST, layer.dst}});
      if (layer.slopes)
        layer.prelu.execute(n.stream, {{DNNL_ARG_SRC, layer.dst},
                                       {DNNL_ARG_WEIGHTS, layer.slopes},
                                       {DNNL_ARG_DST, layer.dst}});
      source = &layer.dst;
    }
    if (n.reorderOutput) n.outputReorder.execute(n.stream, n.layers.back().dst, n.plainOutput);
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

std::string EstimateNetwork::precisionText(Precision precision) {
  return precision == Precision::bf16
             ? "float32 I/O; BF16 weights and activations with float32 accumulation (oneDNN, CPU); "
               "float16 model weights widened; 8-bit sRGB source encoding; 8-bit premultiplied sRGB/alpha mosaic"
             : "float32 I/O; float32 weights, activations and accumulation (oneDNN, CPU); float16 model "
               "weights widened; 8-bit sRGB source encoding; 8-bit premultiplied sRGB/alpha mosaic";
}

}  // namespace tarnbloom
