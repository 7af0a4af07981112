// model_image_test.cpp - the model file's text header, its mapping, and the read callback.
// sdet_model_test.cpp goes on with what the model makes of the pairs.
#include "base/sdet/sdet_model.h"

#include "tests/api/det_test.h"

namespace {

static_assert(sizeof(ModelKeyValue_t) == 256 && offsetof(ModelKeyValue_t, value) == 128,
              "a pair is 128 + 128 characters");

int lowest_free_descriptor() {
  const int descriptor = open("/dev/null", O_RDONLY);
  close(descriptor);
  return descriptor;
}

std::string rendered(const olvex::vector<ModelKeyValue_t>& kvs) {
  std::string text;
  for (std::size_t i = 0; i < kvs.size(); ++i) {
    text += std::string("<") + kvs[i].key + "=" + kvs[i].value + ">";
  }
  return text;
}

class ModelImage : public DetTest {
 protected:
  int load(const std::string& file) {
    std::string name = file;
    return get_model_ptr(&name[0], file_start_, size_, kvs_, pattern_);
  }

  char nowhere_ = 0;
  char* file_start_ = &nowhere_;
  char* pattern_ = &nowhere_;
  unsigned int size_ = 9;
  olvex::vector<ModelKeyValue_t> kvs_;
};

TEST_F(ModelImage, header_is_split_into_pairs_up_to_the_start_pattern) {
  const int kNone = -1;
  const std::string k127(127, 'k');
  const std::string v127(127, 'v');
  const struct {
    std::string text;
    std::string pairs;
    int pattern;  // its offset
  } kRows[] = {
      {"ka:va\nkb:vbb\nQTNX____", "<ka=va><kb=vbb>", 13},
      {"a:b;c:dQTNX____", "<a=b><c=d>", 7},
      {"a:b:c\nQTNX____", "<a:b=c>", 6},
      {"k:vQTNX____", "<k=v>", 3},
      {"QTNX____", "", 0},
      {"k:vQTNxQTN;a:bQTNXa:b\nQTNX____", "<k=vQTNxQTN><a=b>", 14},
      {"QQTNX____", "", 1},
      {":v\nk:\nplain\n;;a:b\nplain;k:\n:;QTNX____", "<a=b>", 29},
      {"a:1\nb:2\na:3\nQTNX____", "<a=1><b=2><a=3>", 12},
      {" a : b \r\nQTNX____", "< a = b \r>", 9},
      {std::string("a:b\nc:d\0e:f\nQTNX____", 20), "<a=b><c=d>", kNone},
      {std::string("\0a:b\nQTNX____", 13), "", kNone},
      {"a:b\nno pattern here", "<a=b>", kNone},
      {k127 + "kkk:" + v127 + "vvv\nQTNX____", "<" + k127 + "=" + v127 + ">", 262},
      {k127 + ":" + v127 + "\nQTNX____", "<" + k127 + "=" + v127 + ">", 256},
      // The last four bytes are not scanned, so a pattern with nothing behind it is not found.
      {"QTNX", "", kNone},
      {"k:v\nQTNX", "<k=v>", kNone},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.text.substr(0, 40));
    kvs_.push_back(ModelKeyValue_t());
    pattern_ = &nowhere_;
    const int descriptor = lowest_free_descriptor();
    ASSERT_EQ(0, load(write_file("model.bin", row.text)));
    EXPECT_EQ(descriptor, lowest_free_descriptor());
    EXPECT_EQ(row.text.size(), size_);
    EXPECT_EQ(row.pairs, rendered(kvs_));
    EXPECT_EQ(row.pattern == kNone ? &nowhere_ : file_start_ + row.pattern, pattern_);
    EXPECT_EQ(0, std::memcmp(row.text.data(), file_start_, row.text.size()));
    munmap(file_start_, size_);
  }
}

TEST_F(ModelImage, files_that_hold_no_model_are_refused) {
  std::filesystem::create_directory(path("folder"));
  const std::string too_short = "model file size should not be smaller than start pattern!\n";
  const struct {
    std::string file;
    bool start_untouched;
    std::string message;
  } kRows[] = {
      {path("missing"), true, "fail to open model " + path("missing") + "\n"},
      {path("folder"), false, ""},
      {write_file("empty", ""), false, too_short},
      {write_file("three", "QTN"), false, too_short},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.file);
    file_start_ = pattern_ = &nowhere_;
    size_ = 9;
    const int descriptor = lowest_free_descriptor();
    log();
    EXPECT_EQ(4, load(row.file));
    EXPECT_TRUE(contains(log(), row.message));
    EXPECT_EQ(row.start_untouched ? &nowhere_ : nullptr, file_start_);
    EXPECT_EQ(&nowhere_, pattern_);
    EXPECT_EQ(0u, size_);
    EXPECT_EQ(descriptor, lowest_free_descriptor());
    EXPECT_FALSE(is_mapped(row.file));
  }
}

TEST_F(ModelImage, read_callback_copies_from_its_context) {
  char model[] = "QTNX0123456789ab";
  char got[4] = {0, 0, 0, '!'};
  EXPECT_EQ(0, H2SerializedReadFunc(got, 5, 3, model));
  EXPECT_EQ(std::string("123!"), std::string(got, 4));
  EXPECT_NE(0, H2SerializedReadFunc(got, 0, 3, nullptr));
  EXPECT_EQ('1', got[0]);
}

TEST_F(ModelImage, sizing_maps_a_file_once_and_notes_a_buffer) {
  qv_scripted::Network network = list_network({});
  network.variable_buffer_size = 777;
  qv_scripted::add_network(network);
  std::string first = write_file("first.bin", std::string("a:b\n") + kOfflineModel);
  std::string second = write_file("second.bin", kOfflineModel);
  std::string patternless = write_file("patternless.bin", "a:c\nno pattern in here");
  unsigned int variable_size = 0;
  char buffer[] = "QTNX0123456789ab";
  {
    DetAfModel model;
    EXPECT_EQ(0, model.cal_variable_size(&first[0], &variable_size));
    EXPECT_EQ(777u, variable_size);
    EXPECT_EQ(model.p_model_file_ + 4, model.p_model_);
    EXPECT_EQ(20u, model.model_file_size_);
    EXPECT_TRUE(is_mapped(first));

    EXPECT_EQ(0, model.cal_variable_size(&second[0], &variable_size));
    EXPECT_FALSE(is_mapped(first)) << "the earlier mapping is released";
    EXPECT_TRUE(is_mapped(second));
    EXPECT_EQ("", rendered(model.model_kvs_));

    log();
    EXPECT_EQ(4, model.cal_variable_size(&patternless[0], &variable_size));
    EXPECT_TRUE(
        contains(log(), "get Model variable buffer size failed! model path:" + patternless));
    EXPECT_FALSE(is_mapped(second));
    EXPECT_FALSE(is_mapped(patternless));
    EXPECT_EQ(nullptr, model.p_model_file_);
    EXPECT_EQ(nullptr, model.p_model_);

    EXPECT_EQ(0, model.cal_variable_size(buffer, 16, &variable_size));
    EXPECT_EQ(buffer, model.p_model_file_);
    EXPECT_EQ(buffer, model.p_model_);
    EXPECT_EQ(16u, model.model_file_size_);
    EXPECT_EQ("<a=c>", rendered(model.model_kvs_)) << "a buffer leaves the pairs as they are";
    EXPECT_EQ(4, model.cal_variable_size(&patternless[0], &variable_size))
        << "does not go on with the buffer";
    EXPECT_EQ(0, model.cal_variable_size(&first[0], &variable_size));
  }
  EXPECT_FALSE(is_mapped(first)) << "a model that was never opened releases its mapping";
  EXPECT_STREQ("QTNX0123456789ab", buffer) << "a caller's buffer stays";
}

}  // namespace
