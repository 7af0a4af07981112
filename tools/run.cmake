# Sources of the subcommand run: run_command.cpp reads the options, run_session.cpp does the work.
target_sources(olvex-det PRIVATE
  annotation.cpp
  contact_sheet.cpp
  detector.cpp
  file_source.cpp
  frame_conversion.cpp
  frame_source.cpp
  interruption.cpp
  jpeg_file.cpp
  last_output.cpp
  output_file.cpp
  picture_writers.cpp
  progress.cpp
  result_writers.cpp
  run_command.cpp
  run_log.cpp
  run_outputs.cpp
  run_session.cpp
  run_summary.cpp
  tile_grid.cpp
  video_source.cpp)
