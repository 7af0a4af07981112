// SPDX-License-Identifier: Apache-2.0
// messages.cpp - one list of fields for each message, by which it is read and written.
#include "tools/recordings/messages.h"

#include <cstring>
#include <type_traits>

namespace olvex_tools {

namespace {

// Takes values from the bytes of a message.
class Unpacker {
 public:
  Unpacker(const unsigned char* bytes, std::size_t size) : bytes_(bytes), size_(size) {}

  template <typename Value>
  std::enable_if_t<std::is_arithmetic_v<Value>> operator()(Value& value) {
    const unsigned char* const from = take(sizeof value, "a value");
    std::uint64_t bits = 0;
    for (std::size_t k = 0; k < sizeof value; ++k) {
      bits |= std::uint64_t{from[k]} << (8 * k);
    }
    std::memcpy(&value, &bits, sizeof value);
  }
  void operator()(std::string& text) {
    const std::size_t size = length();
    text.assign(reinterpret_cast<const char*>(take(size, "a text")), size);
  }
  void operator()(Bytes& bytes) {
    const std::size_t size = length();
    const unsigned char* const from = take(size, "an array");
    bytes.assign(from, from + size);
  }
  template <typename Item>
  void operator()(std::vector<Item>& items);
  template <typename Record>
  std::enable_if_t<std::is_class_v<Record>> operator()(Record& record);

  void expect_end() const {
    if (next_ != size_) {
      throw MessageFault{next_, "the message goes on behind its last field"};
    }
  }

 private:
  const unsigned char* take(std::size_t size, const char* what) {
    if (size > size_ - next_) {
      throw MessageFault{next_, std::string("the message ends within ") + what};
    }
    next_ += size;
    return bytes_ + (next_ - size);
  }
  std::size_t length() {
    std::uint32_t size = 0;
    (*this)(size);
    return size;
  }

  const unsigned char* bytes_;
  std::size_t size_;
  std::size_t next_ = 0;
};

class Packer {
 public:
  template <typename Value>
  std::enable_if_t<std::is_arithmetic_v<Value>> operator()(const Value& value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof value);
    for (std::size_t k = 0; k < sizeof value; ++k) {
      bytes.push_back(static_cast<unsigned char>(bits >> (8 * k)));
    }
  }
  void operator()(const std::string& text) {
    (*this)(static_cast<std::uint32_t>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
  }
  void operator()(const Bytes& array) {
    (*this)(static_cast<std::uint32_t>(array.size()));
    bytes.insert(bytes.end(), array.begin(), array.end());
  }
  template <typename Item>
  void operator()(const std::vector<Item>& items);
  template <typename Record>
  std::enable_if_t<std::is_class_v<Record>> operator()(const Record& record);

  Bytes bytes;
};

// ---- Fields. A record is const where it is written. ----

template <typename Visit, typename Record>
using IfIs = std::enable_if_t<std::is_same_v<std::remove_const_t<Visit>, Record>>;

template <typename Visitor, typename... Fields>
void visit_all(Visitor& visitor, Fields&... fields) {
  (visitor(fields), ...);
}

template <typename Visitor, typename R>
IfIs<R, RecordSize> visit(Visitor& v, R& m) {
  visit_all(v, m.name, m.bytes);
}
template <typename Visitor, typename R>
IfIs<R, RecordingAbout> visit(Visitor& v, R& m) {
  visit_all(v, m.format, m.part, m.recorder, m.library, m.library_id, m.machine, m.pointer_bytes,
            m.hwcap, m.hwcap2, m.records, m.environment, m.monotonic, m.realtime, m.ring_bytes,
            m.floor, m.whole_every, m.lost_frames, m.lost_calls, m.carried_complete);
}
template <typename Visitor, typename R>
IfIs<R, RecordedModel> visit(Visitor& v, R& m) {
  visit_all(v, m.call, m.bytes, m.sha256, m.header);
}
template <typename Visitor, typename R>
IfIs<R, RecordedTensor> visit(Visitor& v, R& m) {
  visit_all(v, m.dimensions, m.format);
  for (auto& extent : m.shape) {
    v(extent);
  }
  visit_all(v, m.name, m.innermost_stride, m.scale, m.zero_point, m.aligned_bytes, m.bytes,
            m.width_alignment, m.height_alignment, m.layout);
}
template <typename Visitor, typename R>
IfIs<R, RecordedNetwork> visit(Visitor& v, R& m) {
  visit_all(v, m.call, m.channel, m.input_count, m.output_count, m.inputs, m.outputs);
}
template <typename Visitor, typename R>
IfIs<R, RecordedCall> visit(Visitor& v, R& m) {
  visit_all(v, m.function, m.flags, m.thread, m.call, m.outer, m.handle, m.channel, m.frames,
            m.result, m.begin, m.end, m.words, m.texts);
}
template <typename Visitor, typename R>
IfIs<R, RecordedPlatformCall> visit(Visitor& v, R& m) {
  visit_all(v, m.function, m.result, m.begin, m.duration, m.word);
}
template <typename Visitor, typename R>
IfIs<R, RecordedOutput> visit(Visitor& v, R& m) {
  visit_all(v, m.encoding, m.classes, m.data);
}
template <typename Visitor, typename R>
std::enable_if_t<std::is_same_v<std::remove_const_t<R>, SmallBox> ||
                 std::is_same_v<std::remove_const_t<R>, LargeBox>>
visit(Visitor& v, R& m) {
  visit_all(v, m.x, m.y, m.width, m.height, m.class_id, m.score);
}
template <typename Visitor, typename R>
IfIs<R, RecordedFrame> visit(Visitor& v, R& m) {
  visit_all(v, m.number, m.call, m.handle, m.thread, m.flags, m.result, m.begin, m.duration, m.pts,
            m.buf_size, m.input_crc, m.lost, m.floor, m.empty_frames, m.calls, m.outputs, m.boxes,
            m.large_boxes);
}
template <typename Visitor, typename R>
IfIs<R, RecordedEvent> visit(Visitor& v, R& m) {
  visit_all(v, m.kind, m.time, m.lost_frames, m.lost_calls, m.failures, m.text);
}
template <typename Visitor, typename R>
IfIs<R, RecordedPicture> visit(Visitor& v, R& m) {
  visit_all(v, m.number, m.x, m.y, m.width, m.height, m.format, m.data);
}

// ---- For viewers ----

template <typename Visitor, typename R>
IfIs<R, ViewerTime> visit(Visitor& v, R& m) {
  visit_all(v, m.seconds, m.nanoseconds);
}
template <typename Visitor, typename R>
IfIs<R, ViewerPoint> visit(Visitor& v, R& m) {
  visit_all(v, m.x, m.y);
}
template <typename Visitor, typename R>
IfIs<R, ViewerColour> visit(Visitor& v, R& m) {
  visit_all(v, m.red, m.green, m.blue, m.opacity);
}
template <typename Visitor, typename R>
IfIs<R, ViewerPair> visit(Visitor& v, R& m) {
  visit_all(v, m.key, m.value);
}
template <typename Visitor, typename R>
IfIs<R, ViewerCircle> visit(Visitor& v, R& m) {
  visit_all(v, m.time, m.position, m.diameter, m.thickness, m.fill, m.outline, m.metadata);
}
template <typename Visitor, typename R>
IfIs<R, ViewerPoints> visit(Visitor& v, R& m) {
  visit_all(v, m.time, m.type, m.points, m.outline, m.outlines, m.fill, m.thickness, m.metadata);
}
template <typename Visitor, typename R>
IfIs<R, ViewerText> visit(Visitor& v, R& m) {
  visit_all(v, m.time, m.position, m.text, m.font_size, m.colour, m.background, m.metadata);
}
template <typename Visitor, typename R>
IfIs<R, ImageAnnotations> visit(Visitor& v, R& m) {
  visit_all(v, m.time, m.circles, m.points, m.texts, m.metadata);
}
template <typename Visitor, typename R>
IfIs<R, CompressedImage> visit(Visitor& v, R& m) {
  visit_all(v, m.time, m.frame_id, m.data, m.format);
}

// One by one, so that a length beyond the message asks for no memory.
template <typename Item>
void Unpacker::operator()(std::vector<Item>& items) {
  const std::size_t count = length();
  items.clear();
  for (std::size_t k = 0; k < count; ++k) {
    Item item{};
    (*this)(item);
    items.push_back(std::move(item));
  }
}

template <typename Record>
std::enable_if_t<std::is_class_v<Record>> Unpacker::operator()(Record& record) {
  visit(*this, record);
}

template <typename Item>
void Packer::operator()(const std::vector<Item>& items) {
  (*this)(static_cast<std::uint32_t>(items.size()));
  for (const Item& item : items) {
    (*this)(item);
  }
}

template <typename Record>
std::enable_if_t<std::is_class_v<Record>> Packer::operator()(const Record& record) {
  visit(*this, record);
}

}  // namespace

template <typename Message>
Message unpack_message(const unsigned char* bytes, std::size_t size) {
  Unpacker unpacker(bytes, size);
  Message message;
  visit(unpacker, message);
  unpacker.expect_end();
  return message;
}

template <typename Message>
Bytes pack_message(const Message& message) {
  Packer packer;
  visit(packer, message);
  return packer.bytes;
}

#define OLVEX_MESSAGE(Message)                                        \
  template Message unpack_message(const unsigned char*, std::size_t); \
  template Bytes pack_message(const Message&);
OLVEX_MESSAGE(RecordingAbout)
OLVEX_MESSAGE(RecordedModel)
OLVEX_MESSAGE(RecordedNetwork)
OLVEX_MESSAGE(RecordedCall)
OLVEX_MESSAGE(RecordedFrame)
OLVEX_MESSAGE(RecordedEvent)
OLVEX_MESSAGE(RecordedPicture)
OLVEX_MESSAGE(ImageAnnotations)
OLVEX_MESSAGE(CompressedImage)
#undef OLVEX_MESSAGE

}  // namespace olvex_tools
