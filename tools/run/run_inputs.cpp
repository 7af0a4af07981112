// SPDX-License-Identifier: Apache-2.0
// run_inputs.cpp - patterns, folders of videos, addresses and series of pictures. Declared in run_inputs.h.
#include "tools/run/run_inputs.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <glob.h>

#include "tools/common/command.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

constexpr char kStandardInputPath[] = "/dev/stdin";

bool exists(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error);
}

bool is_pattern(const std::string& word) {
  return word.find_first_of("*?[") != std::string::npos && !exists(word);
}

std::vector<std::string> fitting(const std::string& pattern) {
  glob_t found = {};
  const int result = glob(pattern.c_str(), 0, nullptr, &found);
  std::vector<std::string> paths;
  for (std::size_t i = 0; result == 0 && i < found.gl_pathc; ++i) {
    paths.emplace_back(found.gl_pathv[i]);
  }
  globfree(&found);
  if (paths.empty()) {
    refuse_input(pattern, "no file fits this pattern");
  }
  std::sort(paths.begin(), paths.end(), natural_less);
  return paths;
}

// Letters that are safe in a file's name; the others become underscores.
std::string safe_name(std::string name) {
  for (char& letter : name) {
    letter = letter == '/' || letter == ':' || letter == '?' || letter == '&' ? '_' : letter;
  }
  return name.empty() || name == "." || name == ".." ? "input" : name;
}

// The last part of an address without its extension, or the host.
// Behind the name and password that an address may begin with, after its scheme.
std::size_t end_of_user(const std::string& address) {
  const std::size_t at = address.substr(0, address.find('/')).rfind('@');
  return at == std::string::npos ? 0 : at + 1;
}

std::string name_of_address(const std::string& address) {
  std::string path = address.substr(0, address.find_first_of("?#"));
  path = path.substr(path.find("//") + 2);
  path.erase(0, end_of_user(path));
  while (!path.empty() && path.back() == '/') {
    path.pop_back();
  }
  const bool is_host = path.find('/') == std::string::npos;
  path = path.substr(path.rfind('/') + 1);
  return safe_name(is_host ? path : fs::path(path).stem().string());
}

// Of a file without its extension; of a folder as it is, also when the word ends in a slash.
std::string name_of_path(const std::string& path) {
  std::error_code error;
  const fs::path whole = fs::absolute(path, error).lexically_normal();
  const fs::path last = whole.has_filename() ? whole : whole.parent_path();
  return safe_name(fs::is_directory(path, error) ? last.filename().string() : last.stem().string());
}

RunInput plain_input(const std::string& path) {
  RunInput input;
  input.shown = input.path = path;
  input.name = name_of_path(path);
  return input;
}

RunInput stream_input(const std::string& shown, const std::string& address,
                      const std::string& name) {
  RunInput input;
  input.shown = shown;
  input.path = address;
  input.name = name;
  input.is_stream = true;
  return input;
}

// Of one kind, each a file.
bool continues_series(const RunInput& before, const std::string& path) {
  const std::string last = before.series.empty() ? before.path : before.series.back().string();
  std::error_code error;
  return is_frame_file(path) && is_frame_file(last) &&
         is_picture_file(path) == is_picture_file(last) && !fs::is_directory(path, error) &&
         !fs::is_directory(last, error);
}

class InputList {
 public:
  void add(const std::string& word) {
    if (word == kStandardInput) {
      inputs_.push_back(stream_input("standard input", kStandardInputPath, "stdin"));
    } else if (is_address(word)) {
      inputs_.push_back(stream_input(without_secrets(word), word, name_of_address(word)));
    } else if (is_pattern(word)) {
      for (const std::string& path : fitting(word)) {
        add_path(path);
      }
    } else {
      add_path(word);
    }
  }

  std::vector<RunInput> take() { return std::move(inputs_); }

 private:
  void add_path(const std::string& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
      add_folder(path);
    } else if (!inputs_.empty() && continues_series(inputs_.back(), path)) {
      RunInput& before = inputs_.back();
      if (before.series.empty()) {
        before.series.emplace_back(std::exchange(before.path, ""));
      }
      before.series.emplace_back(path);
      before.shown = before.series.front().string() + " to " + path;
    } else {
      inputs_.push_back(plain_input(path));
    }
  }

  void add_folder(const std::string& folder) {
    const std::vector<fs::path> videos = matching_files(folder, is_video_file);
    if (!videos.empty() && matching_files(folder, is_frame_file).empty()) {
      for (const fs::path& video : videos) {
        inputs_.push_back(plain_input(video.string()));
      }
      return;
    }
    inputs_.push_back(plain_input(folder));
    if (!videos.empty()) {
      inputs_.back().remark = folder + ": left out " + counted(videos.size(), "video", "videos") +
                              " beside the pictures or dumped frames. Name them by a pattern in "
                              "quotes, as in '" +
                              videos.front().parent_path().string() + "/*" +
                              videos.front().extension().string() + "'.";
    }
  }

  std::vector<RunInput> inputs_;
};

// What opening would find out, before anything is done for the inputs in front.
void require_there(const RunInput& input) {
  std::error_code error;
  const fs::file_status status = fs::status(input.path, error);
  if (!input.path.empty() && !input.is_stream && !is_camera(input.path) && !fs::exists(status)) {
    refuse_input(input.path, error ? error.message() : "No such file or directory");
  }
}

}  // namespace

bool is_address(const std::string& word) {
  for (const char* scheme : {"rtsp://", "rtsps://", "http://", "https://"}) {
    if (word.rfind(scheme, 0) == 0) {
      return true;
    }
  }
  return false;
}

std::string without_secrets(const std::string& input) {
  if (!is_address(input)) {
    return input;
  }
  const std::size_t start = input.find("//") + 2;
  const std::string rest = input.substr(start);
  const std::size_t query = rest.find('?');
  return input.substr(0, start) +
         rest.substr(end_of_user(rest),
                     query == std::string::npos ? query : query - end_of_user(rest)) +
         (query == std::string::npos ? "" : "?...");
}

std::vector<RunInput> run_inputs(const std::vector<std::string>& words) {
  if (std::count(words.begin(), words.end(), kStandardInput) > 1) {
    refuse_usage("standard input (-) can be read once only");
  }
  InputList list;
  for (const std::string& word : words) {
    list.add(word);
  }
  std::vector<RunInput> inputs = list.take();
  for (const RunInput& input : inputs) {
    if (inputs.size() > 1) {
      require_there(input);
    }
    for (const fs::path& path : input.series) {
      require_there(plain_input(path.string()));
    }
  }
  return inputs;
}

std::unique_ptr<FrameSource> open_run_input(const RunInput& input, const FrameLayout& layout,
                                            double picture_rate, int timeout) {
  if (input.is_stream) {
    return make_stream_source(input.shown, input.path,
                              input.path == kStandardInputPath ? kNoTimeout : timeout);
  }
  if (input.series.empty()) {
    return open_frame_source(input.path, layout, picture_rate);
  }
  return is_picture_file(input.series.front())
             ? make_picture_source(input.series, picture_rate)
             : make_dump_source(input.series, layout, picture_rate);
}

std::vector<std::string> paths_of(const std::vector<RunInput>& inputs) {
  std::vector<std::string> paths;
  for (const RunInput& input : inputs) {
    if (!input.is_stream && !input.path.empty()) {
      paths.push_back(input.path);
    }
    for (const fs::path& path : input.series) {
      paths.push_back(path.string());
    }
  }
  return paths;
}

}  // namespace olvex_tools
