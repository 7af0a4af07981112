// raw_decode.cpp - raw output layers to boxes, on the CPU, in two steps: cell_scan.h finds the few
// cells that may hold a box, and only those are looked at closely. Boxes are filled when their
// number is known. See det_postprocess.h for the layout of a layer; base/sdet/sdet_model.cpp fills
// the parameters.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "utils/numeric/lanes.h"
#include "utils/olvex_stl/scratch.h"
#include "base/postprocess/cell_scan.h"
#include "base/postprocess/raw_layer.h"

OLVEX_LOG_CLOCK;

namespace {

const size_t kUsualCandidates = 64;  // more take their scratch from the heap
const size_t kUsualLayers = 3;
const size_t kCacheLine = 64;  // bytes

struct BestClass {
  int label;
  float logit;
};

// Goes on from the best of the classes before first: of equal logits the lowest class is the best.
// Written without branches, as which class is best is anybody's guess.
template <typename Cell>
BestClass best_from(const Cell& cell, const LayerShape& shape, int first, int num_classes,
                    BestClass best) {
  for (int k = first; k < num_classes; ++k) {
    const float v = cell[shape.first_class + k];
    best.label = v > best.logit ? k : best.label;
    best.logit = v > best.logit ? v : best.logit;
  }
  return best;
}

const BestClass kNoClass = {0, -INFINITY};

BestClass best_class(const Int16Cell& cell, const LayerShape& shape, int num_classes) {
  return best_from(cell, shape, 0, num_classes, kNoClass);
}

// The best class of each lane. Labels do not count the lane.
struct LaneBest {
  LaneBest() : logit(olvex::splat(kNoClass.logit)), label(olvex::splat(kNoClass.label)) {}

  // Classes from k on, which come after those that were met.
  void meet(const float* logits, int k) {
    const olvex::Floats some = olvex::load<olvex::Floats>(logits + k);
    const olvex::FloatsMask is_better = some > logit;
    label = is_better ? olvex::splat(k) : label;
    logit = is_better ? some : logit;
  }

  void meet(const LaneBest& other) {
    const olvex::FloatsMask is_better =
        (other.logit > logit) | ((other.logit == logit) & (other.label < label));
    label = is_better ? other.label : label;
    logit = is_better ? other.logit : logit;
  }

  olvex::Floats logit;
  olvex::FloatsInt32 label;
};

// Several classes at a time, in chains that do not wait for one another; then the chains, the
// lanes, and the classes that fill no lanes.
BestClass best_class(const Fp32Cell& cell, const LayerShape& shape, int num_classes) {
  const int lanes = static_cast<int>(olvex::kFloatLanes);
  const int kChains = 4;
  if (num_classes < kChains * lanes) {
    return best_from(cell, shape, 0, num_classes, kNoClass);
  }
  const float* const logits = cell.values() + shape.first_class;
  LaneBest chains[kChains];
  int k = 0;
  for (; k + kChains * lanes <= num_classes; k += kChains * lanes) {
    for (int c = 0; c < kChains; ++c) {
      chains[c].meet(logits, k + c * lanes);
    }
  }
  for (; k + lanes <= num_classes; k += lanes) {
    chains[0].meet(logits, k);
  }
  for (int c = 1; c < kChains; ++c) {
    chains[0].meet(chains[c]);
  }
  BestClass best = kNoClass;
  for (int lane = 0; lane < lanes; ++lane) {
    const float logit = olvex::get_lane(chains[0].logit, static_cast<size_t>(lane));
    const int label = olvex::get_lane(chains[0].label, static_cast<size_t>(lane)) + lane;
    const int is_better =
        static_cast<int>(logit > best.logit) |
        (static_cast<int>(logit == best.logit) & static_cast<int>(label < best.label));
    best.label = is_better != 0 ? label : best.label;
    best.logit = is_better != 0 ? logit : best.logit;
  }
  return best_from(cell, shape, k, num_classes, best);
}

// Distance from a cell's centre to one side, in network-input pixels. bins and probabilities are
// scratch of reg_max values.
template <typename Cell>
float side_distance(const Cell& cell, int side, int reg_max, int stride, olvex::vector<float>& bins,
                    olvex::vector<float>& probabilities) {
  if (reg_max == 1) {
    const double reach = static_cast<double>(sigmoid(cell[side]) * 4.0f);
    return static_cast<float>(reach * reach * stride);
  }
  for (int b = 0; b < reg_max; ++b) {
    bins[static_cast<size_t>(b)] = cell[side * reg_max + b];
  }
  softmax_(bins.data(), probabilities.data(), reg_max);
  float mean = 0.0f;
  for (int b = 0; b < reg_max; ++b) {
    mean += static_cast<float>(b) * probabilities[static_cast<size_t>(b)];
  }
  return static_cast<float>(stride) * mean;
}

// One layer's values, cell by cell.
template <typename Cell>
struct Layer {
  typedef typename Cell::Element Element;

  Layer(const DetDecodeInfo& info, int layer, const LayerShape& layer_shape)
      : shape(layer_shape),
        scalar(Cell::layer_scale(info, layer)),
        values(static_cast<const Element*>(info.data[layer])) {
    grid.cells = static_cast<size_t>(shape.rows) * static_cast<size_t>(shape.columns);
    grid.channels = static_cast<size_t>(shape.channels);
    grid.first_class = static_cast<size_t>(shape.first_class);
    grid.num_classes = static_cast<size_t>(info.num_classes);
  }

  Cell cell(size_t index) const {
    return Cell(values + index * grid.channels, values + grid.cells * grid.channels, scalar);
  }

  // Asks for a cell's values, which are spread over several cache lines.
  void prefetch(size_t index) const {
    const Element* const first = values + index * grid.channels;
    for (size_t k = 0; k < grid.channels; k += kCacheLine / sizeof(Element)) {
      __builtin_prefetch(first + k);
    }
  }

  LayerShape shape;
  CellGrid grid;
  float scalar;
  const Element* values;
};

// A cell whose best class reaches the threshold.
struct CellCandidate {
  uint32_t cell;  // index in the layer
  BestClass best;
};
typedef olvex::scratch<CellCandidate, kUsualCandidates> CellCandidates;

// The closer look at a cell that the scan has found.
template <typename Cell>
class CloserLook {
 public:
  CloserLook(const Layer<Cell>& layer, float threshold, CellCandidates& candidates)
      : layer_(layer), threshold_(threshold), candidates_(candidates) {}

  void operator()(size_t cell) {
    const int num_classes = static_cast<int>(layer_.grid.num_classes);
    const CellCandidate candidate = {static_cast<uint32_t>(cell),
                                     best_class(layer_.cell(cell), layer_.shape, num_classes)};
    if (candidate.best.logit >= threshold_) {
      candidates_.push_back(candidate);
      layer_.prefetch(cell);
    }
  }

 private:
  const Layer<Cell>& layer_;
  float threshold_;
  CellCandidates& candidates_;
};

void find_boxes(const Layer<Fp32Cell>& layer, float threshold, CellCandidates& candidates) {
  CloserLook<Fp32Cell> look(layer, threshold, candidates);
  find_cells(layer.values, layer.grid, threshold, look);
}

void find_boxes(const Layer<Int16Cell>& layer, float threshold, CellCandidates& candidates) {
  CloserLook<Int16Cell> look(layer, threshold, candidates);
  find_cells(layer.values, layer.grid, threshold, layer.scalar, look);
}

// Fills a blank box from a candidate. bins and probabilities are scratch of reg_max values.
template <typename Cell>
int fill_box(const DetDecodeInfo& info, const Layer<Cell>& layer, const CellCandidate& candidate,
             olvex::vector<float>& bins, olvex::vector<float>& probabilities, BoxInfo& box) {
  const Cell cell = layer.cell(candidate.cell);
  const int stride = layer.shape.stride;
  const int i = static_cast<int>(candidate.cell) / layer.shape.columns;
  const int j = static_cast<int>(candidate.cell) % layer.shape.columns;
  float d[4];
  for (int side = 0; side < 4; ++side) {
    d[side] = side_distance(cell, side, info.reg_max, stride, bins, probabilities);
  }
  const float cx = static_cast<float>((j + 0.5) * stride);
  const float cy = static_cast<float>((i + 0.5) * stride);
  box.x1 = cx - d[0];
  box.y1 = cy - d[1];
  box.x2 = cx + d[2];
  box.y2 = cy + d[3];
  box.score = sigmoid(candidate.best.logit);
  box.label = candidate.best.label;
  box.keypts.resize(static_cast<size_t>(info.num_keypoints), KeyPt_t());
  return decode_keypoints(cell, layer.shape, i, j, box.keypts);
}

// A layer that has been looked through, and its candidates in the list of all layers.
struct FoundLayer {
  int index;
  LayerShape shape;
  size_t first;
  size_t end;
};

// Looks through one layer. What it returns says whether the layer can be decoded.
int find_in_layer(const DetDecodeInfo& info, int index, CellCandidates& candidates,
                  FoundLayer& found) {
  found.index = index;
  const int result = resolve_shape(info, index, found.shape);
  if (result != E_ALGO_SUCCESS) {
    return result;
  }
  found.first = candidates.size();
  OLVEX_INFO_FORMAT("num_classes = %d; num_keypoints = %d\n", info.num_classes, info.num_keypoints);
  const float threshold = logit_threshold(info.conf_threshold);
  switch (info.out_format) {
    case QV_IPU_FORMAT_FP32:
      OLVEX_INFO("executing FP32 decode...");
      find_boxes(Layer<Fp32Cell>(info, index, found.shape), threshold, candidates);
      break;
    case QV_IPU_FORMAT_INT16:
      OLVEX_INFO("executing INT16 decode...");
      find_boxes(Layer<Int16Cell>(info, index, found.shape), threshold, candidates);
      break;
    default:
      // The format's number stands in for its name.
      OLVEX_ERROR_FORMAT("Not implemented out format: %d !\n", static_cast<int>(info.out_format));
      return E_ALGO_INVALID_PARAM;
  }
  found.end = candidates.size();
  return E_ALGO_SUCCESS;
}

// Fills the boxes of one layer, which begin at boxes[found.first].
template <typename Cell>
int fill_layer(const DetDecodeInfo& info, const FoundLayer& found, const CellCandidates& candidates,
               BoxInfo* boxes) {
  const Layer<Cell> layer(info, found.index, found.shape);
  // A single value per side needs no bins.
  const size_t num_bins = info.reg_max == 1 ? 0 : static_cast<size_t>(info.reg_max);
  olvex::vector<float> bins(num_bins, 0.0f);
  olvex::vector<float> probabilities(num_bins, 0.0f);
  for (size_t n = found.first; n < found.end; ++n) {
    const int result = fill_box(info, layer, candidates[n], bins, probabilities, boxes[n]);
    if (result != E_ALGO_SUCCESS) {
      return result;
    }
  }
  return E_ALGO_SUCCESS;
}

int fill_layer(const DetDecodeInfo& info, const FoundLayer& found, const CellCandidates& candidates,
               BoxInfo* boxes) {
  return info.out_format == QV_IPU_FORMAT_FP32
             ? fill_layer<Fp32Cell>(info, found, candidates, boxes)
             : fill_layer<Int16Cell>(info, found, candidates, boxes);
}

}  // namespace

int det_decode_one_layer(DetDecodeInfo& info, int layer, olvex::vector<BoxInfo>& out) {
  CellCandidates candidates;
  FoundLayer found;
  const int result = find_in_layer(info, layer, candidates, found);
  if (result != E_ALGO_SUCCESS || candidates.size() == 0) {
    return result;
  }
  const size_t first = out.size();
  out.resize(first + candidates.size(), BoxInfo());
  return fill_layer(info, found, candidates, &out[first]);
}

void det_decode_layers(DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  CellCandidates candidates;
  olvex::scratch<FoundLayer, kUsualLayers> layers;
  for (int index = 0; index < info.num_out_layers; ++index) {
    FoundLayer found;
    // Deliberate: the result is not passed on. A layer that fails has logged why, and the others
    // still count.
    if (find_in_layer(info, index, candidates, found) == E_ALGO_SUCCESS) {
      layers.push_back(found);
    }
  }
  if (candidates.size() == 0) {
    return;
  }
  const size_t first = out.size();
  out.resize(first + candidates.size(), BoxInfo());
  for (size_t k = 0; k < layers.size(); ++k) {
    fill_layer(info, layers[k], candidates, &out[first]);
  }
}

void det_postprocess(DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  OLVEX_INFO("det_postprocess");
  out.clear();
  det_decode_layers(info, out);
  nms(out, info.nms_threshold, info.class_specific_nms);
}
