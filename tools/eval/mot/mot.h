// SPDX-License-Identifier: Apache-2.0
// mot.h - the parts of eval mot: the files, truth and result of a clip side by side, the metrics of its tracks,
// and the report. eval_mot_command.cpp puts them together.
#ifndef TOOLS_EVAL_MOT_MOT_H
#define TOOLS_EVAL_MOT_MOT_H

#include <array>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/common/box.h"
#include "tools/common/evaluation.h"
#include "tools/eval/mot/mot_classes.h"

namespace olvex_tools {

// ---- The files (mot_files.cpp) ------------------------------------------------------------------

struct MotRow {
  std::size_t line = 0;  // in the file, from 1
  long frame = 0;        // from 1; 0 is let through for the lint to find
  long id = 0;
  int class_id = kNoClass;
  bool ignored = false;  // truth that counts neither as found nor as missed
  Box box;               // display pixels
};

struct MotFile {
  std::string path;
  std::vector<MotRow> rows;  // by frame, those of a frame in the order of the file
};

// Both skip blank lines and lines that start with #, and throw ToolError (kInputError) with file and
// row for a row that they cannot take. A class that is -1 or missing is kNoClass.

// frame,id,left,top,width,height,consider[,class[,visibility[,moving]]]. Rows of a class that is not
// to count are ignored truth.
MotFile read_mot_truth(const std::string& path, const ClassMap& classes);
// frame,id,left,top,width,height,score[,class[,any[,any]]]. Rows of a class that is not to count are left out.
MotFile read_mot_result(const std::string& path, const ClassMap& classes);

// Rows without a class get the only one that the other file's rows have which count, or the lowest of several where
// they are ignored truth, whose class does not matter, or 0 where that has none either. Then checks that each object of the truth has one class and at most one row in a frame. Throws
// ToolError (kInputError) where it does not, or where the other file has several classes for a row that counts.
void settle_classes(MotFile* truth, MotFile* result);

// What is probably a mistake in the files and not in the tracker; at most one finding per kind and file. Of
// rows of result that repeat an id in a frame only the first is kept. In mot_lint.cpp.
std::vector<LintFinding> lint_tracks(const MotFile& truth, MotFile* result);

// ---- Truth and result side by side (mot_clip.cpp) -----------------------------------------------

struct WeightedPair {
  std::size_t row = 0;
  std::size_t column = 0;
  double weight = 0;
};

// In mot_assignment.cpp.
// The pairs with the largest sum of weights of which no two share a row or a column, in the order
// of their rows. Pairs that are not listed are forbidden, those without a weight above 0 are never
// taken, and rows and columns may be left over. Of several equally good ways one is chosen, always
// the same one.
// Requires: rows and columns of pairs are below these counts; weights are finite; no pair is listed
// twice.
std::vector<WeightedPair> best_assignment(std::size_t rows, std::size_t columns,
                                          const std::vector<WeightedPair>& pairs);

// From here on two boxes show the same object.
constexpr double kMatchOverlap = 0.5;

// The rest in mot_overlaps.cpp, up to matching_pairs.
// Intersection over union, 0 to 1: at most 1 also where rounding makes it more, since sums of it are shares.
double overlap_of(const Box& left, const Box& right);

// Whether an overlap reaches a threshold that need not have an exact binary form.
bool reaches(double overlap, double threshold);

// The boxes of either list that overlap at all, with their overlap as weight, in the order of rows, then columns.
std::vector<WeightedPair> overlaps_between(const std::vector<Box>& rows,
                                           const std::vector<Box>& columns);

// Those that overlap by kMatchOverlap or more.
std::vector<WeightedPair> matching_pairs(const std::vector<WeightedPair>& pairs);

struct ClipBox {
  std::size_t track = 0;  // index into MotClip::objects or MotClip::result_ids
  int class_id = 0;
  Box box;
};

struct ClipFrame {
  long number = 0;
  std::vector<ClipBox> truths;
  std::vector<ClipBox> results;
};

struct FrameSpan {
  long first = 0;
  long last = 0;
};

// Requires: the frame comes after the spans.
void extend_spans(std::vector<FrameSpan>* spans, long frame);

struct ClipObject {
  long id = 0;
  int class_id = 0;
  std::vector<FrameSpan> present;  // frames with a box that counts, in order
  std::vector<FrameSpan> ignored;  // frames with one that is to be ignored
};

struct MotClip {
  std::vector<ClipFrame> frames;    // those with a box in either file, in order
  std::vector<ClipObject> objects;  // by id, those that are never counted too
  std::vector<long> result_ids;     // in order
  std::set<int> result_classes;     // of all results, those that show ignored truth too
};

// Ignored truth is removed from the frames, and so is each result that shows one: with all truths of
// the frame assigned to results, it belongs to an ignored one. Like the preprocessing of
// MOTChallenge, but that a truth which counts takes results of the same class only.
// Requires: no id twice in a frame.
MotClip make_mot_clip(const MotFile& truth, const MotFile& result);

// The clip with the boxes and objects of these classes only.
MotClip restricted_to(const MotClip& clip, const std::set<int>& classes);

// The classes of the clip's boxes.
std::set<int> classes_of(const MotClip& clip);

// The truths (rows) and results (columns) of one class that overlap at all, as overlaps_between.
std::vector<WeightedPair> overlapping_pairs(const ClipFrame& frame);

// ---- The metrics (mot_metrics.cpp) --------------------------------------------------------------

// The CLEAR MOT counts: K. Bernardin, R. Stiefelhagen, "Evaluating multiple object tracking performance: the
// CLEAR MOT metrics", EURASIP Journal on Image and Video Processing 2008. Mostly tracked and mostly lost
// objects and fragments: Y. Li, C. Huang, R. Nevatia, "Learning to associate: HybridBoosted multi-target
// tracker for crowded scene", CVPR 2009. Overlap from kMatchOverlap on is a match. The pairs of the frame before
// are kept where they still match; the others are assigned for the greatest sum of overlaps.
struct ClearCounts {
  long matches = 0;
  long misses = 0;       // truths without a result
  long false_boxes = 0;  // results without a truth
  long switches = 0;     // matches with another id than the object's last match had
  long fragments = 0;    // times that an object was found again after frames in which it was missed
  double overlap_sum = 0;   // of the matches
  long mostly_tracked = 0;  // objects found in at least 80 % of their frames
  long partly_tracked = 0;
  long mostly_lost = 0;  // in less than 20 %

  void add(const ClearCounts& other);
};

// Frames in a row in which an object was found under one id.
struct FoundRun {
  FrameSpan frames;
  long result_id = 0;
};

// The sums that HOTA and its parts are made of: J. Luiten, A. Osep, P. Dendorfer, P. Torr, A. Geiger,
// L. Leal-Taixe, B. Leibe, "HOTA: A higher order metric for evaluating multi-object tracking", International
// Journal of Computer Vision 129, 2021.

// Overlap thresholds 0.05, 0.10 ... 0.95.
constexpr std::size_t kHotaThresholds = 19;

struct HotaSums {
  struct AtThreshold {
    long matches = 0;
    // Of each match, the frames in which its object and its track match each other, as a share of
    double association = 0;            // the frames that either has
    double association_recall = 0;     // the object's frames
    double association_precision = 0;  // the track's frames
    double overlap = 0;                // of the matches
  };
  long truths = 0;
  long results = 0;
  std::array<AtThreshold, kHotaThresholds> thresholds;

  void add(const HotaSums& other);
};

// The overlap of threshold i.
double hota_threshold(std::size_t i);

// Several clips are one in the sums: that weighs the clips' association and LocA by their matches. Detection and
// association are 0 where nothing matches; LocA counts 1 at a threshold that no match reaches, as the values of the
// authors' own program do.
struct HotaValues {
  double hota = 0;
  double detection = 0;
  double detection_recall = 0;
  double detection_precision = 0;
  double association = 0;
  double association_recall = 0;
  double association_precision = 0;
  double localisation = 0;
};

// In mot_hota.cpp.
std::array<HotaValues, kHotaThresholds> hota_curve(const HotaSums& sums);
// Their means.
HotaValues hota_values(const HotaSums& sums);

struct MotScores {
  ClearCounts clear;
  // IDTP, how much is right when each object may be one track only: E. Ristani, F. Solera, R. Zou, R. Cucchiara,
  // C. Tomasi, "Performance measures and a data set for multi-target, multi-camera tracking", ECCV Workshops
  // 2016. Objects and tracks are assigned for the whole clip, so that misses and false boxes are fewest.
  long identity_matches = 0;
  HotaSums hota;

  void add(const MotScores& other);
};

// A result's id in the frames in which its box is false.
struct FalseTrack {
  long result_id = 0;
  int class_id = 0;               // of the first of these boxes
  std::vector<FrameSpan> frames;  // in order
  bool finds_an_object = false;   // in another frame
};

struct MotMeasurement {
  MotScores scores;
  std::vector<std::vector<FoundRun>> runs;  // by the clip's objects
  std::vector<FalseTrack> false_tracks;     // by their first frame, then id
};

// Throws ToolError (kInputError) when more objects and tracks overlap than memory is meant for.
MotMeasurement measure_tracks(const MotClip& clip);

// HOTA and its parts, as hota_metrics has them.
std::vector<Metric> hota_metrics(const HotaValues& values);

// These, then MOTA, MOTP, IDF1, IDP, IDR. All are undefined without truth, MOTP, LocA, DetPr and IDP also
// when there is nothing to take the mean of.
std::vector<Metric> mot_metrics(const MotScores& scores);

struct MotCount {
  const char* name;  // in JSON
  const char* heading;
  long value;
};

std::vector<MotCount> mot_counts(const MotScores& scores);

// ---- The report (mot_report.cpp) ----------------------------------------------------------------

struct MotClipReport {
  std::string name;
  std::string truth_path;
  std::string result_path;
  std::vector<ClipObject> objects;
  MotMeasurement measured;
};

struct MotReport {
  ClassNames class_names;
  std::set<int> restricted_to;  // empty: all classes
  std::vector<MotClipReport> clips;
  MotScores combined;                  // of all clips
  std::map<int, MotScores> per_class;  // of all clips
  std::vector<LintFinding> findings;
};

std::string mot_report_text(const MotReport& report);
// schema/eval_mot.schema.json defines it.
std::string mot_report_json(const MotReport& report, const std::vector<MetricMinimum>& minimums);

// HOTA and its parts over the overlap, in mot_plot.cpp.
std::string hota_curve_svg(const MotScores& scores);

// A picture of one clip: per object of the truth a row that shows when it was there and under which id it was
// found, then a row per id with false boxes. Ids are written where they fit; every bar's tooltip has id and frames.
// Objects of classes that the results never have are left out, unless there are no results. In mot_timeline.cpp.
std::string timeline_svg(const std::string& title, const ClassNames& names, const MotClip& clip,
                         const MotMeasurement& measured);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_H
