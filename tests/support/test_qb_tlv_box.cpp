// TLV boxes: wire layout, insertion order, frozen boxes, getters and a parser that never reads
// past its input.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "qb_tlv_box.h"

namespace {

using Bytes = std::vector<qb_u8_t>;
using Box = std::unique_ptr<tlv_box_t, int (*)(tlv_box_t*)>;

Box own(tlv_box_t* b) { return Box(b, tlv_box_destroy); }
Box parse(const Bytes& wire) { return own(tlv_box_parse(wire.data(), static_cast<qb_s32_t>(wire.size()))); }

void append_item(Bytes* out, qb_s32_t type, qb_s32_t length, const Bytes& value) {
  const qb_s32_t head[2] = {type, length};
  const qb_u8_t* p = reinterpret_cast<const qb_u8_t*>(head);
  out->insert(out->end(), p, p + sizeof(head));
  out->insert(out->end(), value.begin(), value.end());
}

std::vector<qb_s32_t> keys_of(const tlv_box_t* box) {
  std::vector<qb_s32_t> keys(16);
  const int n = key_list_keyset(box->m_list, keys.data(), 16);
  keys.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return keys;
}

// A getter's value (-1 when it wrote none); the result code is checked against want_rc.
template <typename T>
T get(int (*fn)(const tlv_box_t*, qb_s32_t, T*), const tlv_box_t* box, qb_s32_t type, int want_rc = 0) {
  T v = static_cast<T>(-1);
  EXPECT_EQ(fn(box, type, &v), want_rc) << "type " << type;
  return v;
}

Bytes g_sent;
int capture_send(const void* data, int size) {
  g_sent.assign(static_cast<const qb_u8_t*>(data), static_cast<const qb_u8_t*>(data) + size);
  return 0;
}

// A report message is the outer head, the inner head and the value: 19 bytes for 3 value bytes.
// Items go on the wire in insertion order; a frozen box (serialized or parsed) refuses items and a
// second serialization; a duplicate type is refused and leaves the box as it was.
TEST(TlvBox, WireLayoutOrderFreezingAndDuplicates) {
  const qb_u8_t json[] = {0x61, 0x62, 0x00};
  EXPECT_EQ(tlv_packet(2, 0x00040502, json, 3, capture_send), 0);
  EXPECT_EQ(g_sent, (Bytes{0x02, 0, 0, 0, 0x0B, 0, 0, 0, 0x02, 0x05, 0x04, 0x00, 0x03, 0, 0, 0, 0x61, 0x62, 0x00}));

  Box box = own(tlv_box_create());
  ASSERT_EQ(tlv_box_put_char(box.get(), 5, 'A'), 0);
  ASSERT_EQ(tlv_box_put_short(box.get(), 3, 0x0102), 0);
  EXPECT_EQ(tlv_box_put_string(box.get(), 5, "other"), -1);
  EXPECT_EQ(tlv_box_get_size(box.get()), 9 + 10);
  EXPECT_EQ(tlv_box_get_buffer(box.get()), nullptr);
  ASSERT_EQ(tlv_box_serialize(box.get()), 0);
  Bytes expected;
  append_item(&expected, 5, 1, {'A'});
  append_item(&expected, 3, 2, {0x02, 0x01});
  const qb_u8_t* buf = tlv_box_get_buffer(box.get());
  EXPECT_EQ(Bytes(buf, buf + tlv_box_get_size(box.get())), expected);
  EXPECT_EQ(tlv_box_serialize(box.get()), -1);
  EXPECT_EQ(tlv_box_put_int(box.get(), 7, 1), -1);
  Box parsed = parse(expected);
  EXPECT_EQ(tlv_box_put_int(parsed.get(), 2, 1), -1);
  EXPECT_EQ(tlv_box_serialize(parsed.get()), -1);
}

// Every put/get pair through serialize and parse, widths included; a nested box; scalar getters
// zero-extend a short value instead of reading past it; masked look-up returns the earliest match.
TEST(TlvBox, GettersThroughParse) {
  Box inner = own(tlv_box_create());
  ASSERT_EQ(tlv_box_put_int(inner.get(), 0x00050002, 42), 0);
  Box box = own(tlv_box_create());
  EXPECT_EQ(tlv_box_put_object(box.get(), 10, inner.get()), -1);  // inner not serialized yet
  ASSERT_EQ(tlv_box_serialize(inner.get()), 0);
  ASSERT_TRUE(tlv_box_put_char(box.get(), 1, 'z') == 0 && tlv_box_put_short(box.get(), 2, -2) == 0 &&
              tlv_box_put_int(box.get(), 3, -300000) == 0 && tlv_box_put_long(box.get(), 4, 0x1122334455667788LL) == 0 &&
              tlv_box_put_longlong(box.get(), 5, -5) == 0 && tlv_box_put_float(box.get(), 6, 1.5f) == 0 &&
              tlv_box_put_double(box.get(), 7, -2.25) == 0 && tlv_box_put_bytes(box.get(), 9, "\x01\x02\x03", 3) == 0 &&
              tlv_box_put_object(box.get(), 10, inner.get()) == 0 && tlv_box_serialize(box.get()) == 0);
  EXPECT_EQ(tlv_box_get_size(box.get()), 9 * 8 + 1 + 2 + 4 + 8 + 8 + 4 + 8 + 3 + 12);

  Box p = own(tlv_box_parse(tlv_box_get_buffer(box.get()), tlv_box_get_size(box.get())));
  EXPECT_EQ(get(tlv_box_get_char, p.get(), 1), 'z');
  EXPECT_EQ(get(tlv_box_get_short, p.get(), 2), -2);
  EXPECT_EQ(get(tlv_box_get_int, p.get(), 3), -300000);
  EXPECT_EQ(get(tlv_box_get_long, p.get(), 4), 0x1122334455667788LL);
  EXPECT_EQ(get(tlv_box_get_longlong, p.get(), 5), -5);
  EXPECT_EQ(get(tlv_box_get_float, p.get(), 6), 1.5f);
  EXPECT_EQ(get(tlv_box_get_double, p.get(), 7), -2.25);
  const qb_u8_t* ptr = nullptr;
  qb_s32_t len = 0;
  ASSERT_EQ(tlv_box_get_bytes_ptr(p.get(), 9, &ptr, &len), 0);
  EXPECT_EQ(Bytes(ptr, ptr + len), (Bytes{1, 2, 3}));
  tlv_box_t* raw = nullptr;
  ASSERT_EQ(tlv_box_get_object(p.get(), 10, &raw), 0);
  EXPECT_EQ(get(tlv_box_get_int, own(raw).get(), 0x00050002), 42);
  EXPECT_EQ(get(tlv_box_get_int, p.get(), 99, -1), -1);

  Bytes wire;
  append_item(&wire, 0x00120001, 1, {0x7F});
  append_item(&wire, 0x00110003, 0, {});
  append_item(&wire, 0x00110001, 0, {});
  Box shorts = parse(wire);
  EXPECT_EQ(get(tlv_box_get_long, shorts.get(), 0x00120001), 0x7F);
  EXPECT_EQ(tlv_box_get_mask_node(shorts.get(), 0x00110000, 0xFFFF0000U)->type, 0x00110003);
  EXPECT_EQ(tlv_box_get_mask_node(shorts.get(), 0x00130000, 0xFFFF0000U), nullptr);
}

// Too small a capacity fails and leaves the buffer untouched; a larger one is zero-filled first,
// and nothing past the capacity is touched.
TEST(TlvBox, StringCapacity) {
  Box box = own(tlv_box_create());
  ASSERT_EQ(tlv_box_put_string(box.get(), 1, "abcd"), 0);  // 5 bytes stored
  char buf[16];
  memset(buf, 'X', sizeof(buf));
  qb_s32_t len = 4;
  EXPECT_EQ(tlv_box_get_string(box.get(), 1, buf, &len), -1);
  EXPECT_EQ(std::string(buf, sizeof(buf)), std::string(16, 'X'));
  len = 12;
  EXPECT_EQ(tlv_box_get_bytes(box.get(), 1, buf, &len), 0);
  EXPECT_EQ(len, 5);
  EXPECT_EQ(std::string(buf, 13), std::string("abcd\0\0\0\0\0\0\0\0X", 13));
}

TEST(TlvParser, WalkRules) {
  Bytes good;
  append_item(&good, 1, 2, {0xA1, 0xA2});
  auto then = [&good](qb_s32_t type, qb_s32_t length, const Bytes& value) {
    Bytes out = good;
    append_item(&out, type, length, value);
    return out;
  };
  Bytes truncated_head = good;
  truncated_head.insert(truncated_head.end(), {5, 0, 0, 0, 1});
  Bytes negative = then(3, -8, {});
  append_item(&negative, 4, 0, {});
  Bytes duplicate = then(1, 1, {0xBB});
  append_item(&duplicate, 10, 1, {0xDD});
  const struct {
    const char* name;
    Bytes wire;
    std::vector<qb_s32_t> types;  // items expected, in order
  } cases[] = {
      {"value past end", then(2, 100, {1, 2, 3}), {1}},
      {"negative length", negative, {1}},
      {"truncated head", truncated_head, {1}},
      {"length near INT_MAX", then(6, 0x7FFFFFFF, {0}), {1}},
      {"zero-length item", then(7, 0, {}), {1, 7}},
      {"repeated type keeps the first", duplicate, {1, 10}},
      {"only three bytes", {1, 2, 3}, {}},
  };
  for (const auto& c : cases) {
    // A heap copy of exactly the input size lets the sanitizer build catch any overread.
    Box box = parse(Bytes(c.wire));
    ASSERT_NE(box.get(), nullptr) << c.name;
    EXPECT_EQ(tlv_box_get_size(box.get()), static_cast<qb_s32_t>(c.wire.size())) << c.name;
    EXPECT_EQ(keys_of(box.get()), c.types) << c.name;
  }
  EXPECT_EQ(tlv_box_get_node(parse(duplicate).get(), 1)->value[0], 0xA1);
  Box negative_size = own(tlv_box_parse(good.data(), -5));
  EXPECT_EQ(tlv_box_get_size(negative_size.get()), 0);
  EXPECT_TRUE(keys_of(negative_size.get()).empty());
}

}  // namespace
