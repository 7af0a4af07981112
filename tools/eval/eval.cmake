# Sources of the subcommand eval: eval_command.cpp adds its subcommands, coco and mot.
target_sources(olvex-det PRIVATE
  eval/coco_files.cpp
  eval/coco_json.cpp
  eval/coco_lint.cpp
  eval/coco_matching.cpp
  eval/coco_metrics.cpp
  eval/coco_picture_errors.cpp
  eval/coco_plot.cpp
  eval/coco_report.cpp
  eval/coco_worst_pictures.cpp
  eval/eval_coco_command.cpp
  eval/eval_command.cpp
  eval/eval_mot_command.cpp
  eval/lint_finding.cpp
  eval/metric_minimums.cpp
  eval/mot_assignment.cpp
  eval/mot_clear.cpp
  eval/mot_clip.cpp
  eval/mot_files.cpp
  eval/mot_hota.cpp
  eval/mot_identity.cpp
  eval/mot_lint.cpp
  eval/mot_metrics.cpp
  eval/mot_overlap.cpp
  eval/mot_report.cpp
  eval/mot_timeline.cpp)
