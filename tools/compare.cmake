# Sources of the subcommand compare: compare_command.cpp reads the options and puts the rest together.
target_sources(olvex-det PRIVATE
  compare_choice.cpp
  compare_command.cpp
  compare_run.cpp
  compare_sheet.cpp)
