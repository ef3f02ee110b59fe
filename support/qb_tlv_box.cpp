// TLV boxes: insertion-ordered key list, item copies, serialization and a bounded parser.
#include "qb_tlv_box.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "qb_peer_send.h"

namespace {

// ---- key list helpers -------------------------------------------------------------------------

// First entry with this key, walking from header along prev (insertion order).
key_list_node_t* key_list_find_node(const key_list_t* list, qb_s32_t key) {
  if (list == nullptr) {
    return nullptr;
  }
  for (key_list_node_t* node = list->header; node != nullptr; node = node->prev) {
    if (node->key == key) {
      return node;
    }
  }
  return nullptr;
}

bool key_matches_mask(qb_s32_t entry_key, qb_s32_t key, qb_u32_t mask) {
  return ((static_cast<qb_u32_t>(entry_key) ^ static_cast<qb_u32_t>(key)) & mask) == 0;
}

// ---- items ------------------------------------------------------------------------------------

void tlv_free(tlv_t* tlv) {
  if (tlv != nullptr) {
    free(tlv->value);
    free(tlv);
  }
}

void tlv_releaser(void* value) { tlv_free(static_cast<tlv_t*>(value)); }

// A new item holding a private copy of length bytes (a zero-length value still gets a buffer).
tlv_t* tlv_new(qb_s32_t type, const void* data, qb_s32_t length) {
  if (length < 0 || (length > 0 && data == nullptr)) {
    return nullptr;
  }
  tlv_t* tlv = static_cast<tlv_t*>(calloc(1, sizeof(tlv_t)));
  if (tlv == nullptr) {
    return nullptr;
  }
  tlv->value = static_cast<qb_u8_t*>(malloc(length > 0 ? static_cast<size_t>(length) : 1U));
  if (tlv->value == nullptr) {
    free(tlv);
    return nullptr;
  }
  if (length > 0) {
    memcpy(tlv->value, data, static_cast<size_t>(length));
  }
  tlv->type = type;
  tlv->length = length;
  return tlv;
}

bool tlv_box_is_frozen(const tlv_box_t* box) { return box->m_serialized_buffer != nullptr; }

// Adds a copy of the value; the box stays unchanged on any failure.
int tlv_box_put_value(tlv_box_t* box, qb_s32_t type, const void* data, qb_s32_t length) {
  if (box == nullptr || tlv_box_is_frozen(box) || length < 0) {
    return -1;
  }
  if (key_list_find_key(box->m_list, type) != 0) {
    return -1;
  }
  if (length > INT32_MAX - TLV_HEAD_BYTES - box->m_serialized_bytes) {
    return -1;
  }
  tlv_t* tlv = tlv_new(type, data, length);
  if (tlv == nullptr) {
    return -1;
  }
  if (key_list_add(box->m_list, type, tlv) != 0) {
    tlv_free(tlv);
    return -1;
  }
  box->m_serialized_bytes += TLV_HEAD_BYTES + length;
  return 0;
}

// Copies a fixed-width scalar out of an item. A value shorter than the width is zero-extended,
// so the copy never reads outside the stored bytes.
int tlv_box_get_scalar(const tlv_box_t* box, qb_s32_t type, void* out, size_t width) {
  const tlv_t* tlv = tlv_box_get_node(box, type);
  if (tlv == nullptr || out == nullptr) {
    return -1;
  }
  const size_t stored = static_cast<size_t>(tlv->length);
  memset(out, 0, width);
  memcpy(out, tlv->value, stored < width ? stored : width);
  return 0;
}

int tlv_box_get_copy(const tlv_box_t* box, qb_s32_t type, void* buffer, qb_s32_t* inout_len) {
  const tlv_t* tlv = tlv_box_get_node(box, type);
  if (tlv == nullptr || buffer == nullptr || inout_len == nullptr || *inout_len < tlv->length) {
    return -1;
  }
  memset(buffer, 0, static_cast<size_t>(*inout_len));
  memcpy(buffer, tlv->value, static_cast<size_t>(tlv->length));
  *inout_len = tlv->length;
  return 0;
}

// Freezes a box with an owned buffer of size bytes (a 1-byte buffer stands for an empty one).
int tlv_box_freeze(tlv_box_t* box, const void* bytes, qb_s32_t size) {
  const size_t alloc = size > 0 ? static_cast<size_t>(size) : 1U;
  qb_u8_t* buffer = static_cast<qb_u8_t*>(calloc(1, alloc));
  if (buffer == nullptr) {
    return -1;
  }
  if (bytes != nullptr && size > 0) {
    memcpy(buffer, bytes, static_cast<size_t>(size));
  }
  box->m_serialized_buffer = buffer;
  // A negative input size gives an empty box of size 0.
  box->m_serialized_bytes = size > 0 ? size : 0;
  return 0;
}

// Walks the items of a frozen box's buffer. An item head or value running past the end stops the
// walk; that item is not added. A repeated type keeps its first value.
void tlv_box_parse_items(tlv_box_t* box) {
  const qb_u8_t* const bytes = box->m_serialized_buffer;
  const qb_s64_t size = box->m_serialized_bytes;
  qb_s64_t offset = 0;
  while (offset < size) {
    if (size - offset < TLV_HEAD_BYTES) {
      return;
    }
    qb_tlv_head_t head;
    memcpy(&head, bytes + offset, sizeof(head));
    if (head.length < 0 || head.length > size - offset - TLV_HEAD_BYTES) {
      return;
    }
    tlv_t* tlv = tlv_new(head.type, bytes + offset + TLV_HEAD_BYTES, head.length);
    if (tlv == nullptr) {
      return;
    }
    if (key_list_add(box->m_list, head.type, tlv) != 0) {
      tlv_free(tlv);
    }
    offset += TLV_HEAD_BYTES + head.length;
  }
}

}  // namespace

// ---- key list -------------------------------------------------------------------------------

key_list_t* key_list_create(key_list_releaser_t releaser) {
  key_list_t* list = static_cast<key_list_t*>(calloc(1, sizeof(key_list_t)));
  if (list != nullptr) {
    list->releaser = releaser;
  }
  return list;
}

int key_list_destroy(key_list_t* list) {
  if (list == nullptr) {
    return -1;
  }
  key_list_node_t* node = list->header;
  while (node != nullptr) {
    key_list_node_t* const later = node->prev;
    if (list->releaser != nullptr) {
      list->releaser(node->value);
    }
    free(node);
    node = later;
  }
  free(list);
  return 0;
}

int key_list_add(key_list_t* list, qb_s32_t key, void* value) {
  if (list == nullptr || key_list_find_node(list, key) != nullptr) {
    return -1;
  }
  key_list_node_t* node = static_cast<key_list_node_t*>(calloc(1, sizeof(key_list_node_t)));
  if (node == nullptr) {
    return -1;
  }
  node->key = key;
  node->value = value;
  node->next = list->tail;
  if (list->tail != nullptr) {
    list->tail->prev = node;
  } else {
    list->header = node;
  }
  list->tail = node;
  list->count++;
  return 0;
}

int key_list_get(const key_list_t* list, qb_s32_t key, void** out_value) {
  const key_list_node_t* node = key_list_find_node(list, key);
  if (node == nullptr || out_value == nullptr) {
    return -1;
  }
  *out_value = node->value;
  return 0;
}

int key_list_find_key(const key_list_t* list, qb_s32_t key) {
  return key_list_find_node(list, key) != nullptr ? 1 : 0;
}

int key_list_edit(key_list_t* list, qb_s32_t key, void* value) {
  key_list_node_t* node = key_list_find_node(list, key);
  if (node == nullptr) {
    return -1;
  }
  node->value = value;
  return 0;
}

int key_list_mask_get(const key_list_t* list, qb_s32_t key, qb_u32_t mask, void** out_value) {
  if (list == nullptr || out_value == nullptr) {
    return -1;
  }
  for (const key_list_node_t* node = list->header; node != nullptr; node = node->prev) {
    if (key_matches_mask(node->key, key, mask)) {
      *out_value = node->value;
      return 0;
    }
  }
  return -1;
}

qb_s32_t key_list_count(const key_list_t* list) { return list != nullptr ? list->count : 0; }

int key_list_keyset(const key_list_t* list, qb_s32_t* keys, qb_s32_t capacity) {
  if (list == nullptr || list->count > capacity || (keys == nullptr && list->count > 0)) {
    return -1;
  }
  int n = 0;
  for (const key_list_node_t* node = list->header; node != nullptr; node = node->prev) {
    keys[n++] = node->key;
  }
  return n;
}

// ---- creation and teardown ------------------------------------------------------------------

tlv_box_t* tlv_box_create(void) {
  tlv_box_t* box = static_cast<tlv_box_t*>(calloc(1, sizeof(tlv_box_t)));
  if (box == nullptr) {
    return nullptr;
  }
  box->m_list = key_list_create(tlv_releaser);
  if (box->m_list == nullptr) {
    free(box);
    return nullptr;
  }
  return box;
}

int tlv_box_destroy(tlv_box_t* box) {
  if (box == nullptr) {
    return -1;
  }
  key_list_destroy(box->m_list);
  free(box->m_serialized_buffer);
  free(box);
  return 0;
}

qb_u8_t* tlv_box_get_buffer(tlv_box_t* box) {
  return box != nullptr ? box->m_serialized_buffer : nullptr;
}

qb_s32_t tlv_box_get_size(const tlv_box_t* box) {
  return box != nullptr ? box->m_serialized_bytes : 0;
}

// ---- adding items ---------------------------------------------------------------------------

int tlv_box_put_char(tlv_box_t* box, qb_s32_t type, char value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_short(tlv_box_t* box, qb_s32_t type, qb_s16_t value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_int(tlv_box_t* box, qb_s32_t type, qb_s32_t value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_long(tlv_box_t* box, qb_s32_t type, qb_s64_t value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_longlong(tlv_box_t* box, qb_s32_t type, qb_s64_t value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_float(tlv_box_t* box, qb_s32_t type, float value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_double(tlv_box_t* box, qb_s32_t type, double value) {
  return tlv_box_put_value(box, type, &value, sizeof(value));
}

int tlv_box_put_string(tlv_box_t* box, qb_s32_t type, const char* text) {
  if (text == nullptr) {
    return -1;
  }
  const size_t length = strlen(text) + 1;
  if (length > static_cast<size_t>(INT32_MAX)) {
    return -1;
  }
  return tlv_box_put_value(box, type, text, static_cast<qb_s32_t>(length));
}

int tlv_box_put_bytes(tlv_box_t* box, qb_s32_t type, const void* data, qb_s32_t length) {
  return tlv_box_put_value(box, type, data, length);
}

int tlv_box_put_object(tlv_box_t* box, qb_s32_t type, tlv_box_t* inner) {
  if (inner == nullptr || !tlv_box_is_frozen(inner)) {
    return -1;
  }
  return tlv_box_put_value(box, type, inner->m_serialized_buffer, inner->m_serialized_bytes);
}

// ---- serializing and parsing ----------------------------------------------------------------

int tlv_box_serialize(tlv_box_t* box) {
  if (box == nullptr || tlv_box_is_frozen(box)) {
    return -1;
  }
  const qb_s32_t size = box->m_serialized_bytes;
  qb_u8_t* buffer = static_cast<qb_u8_t*>(calloc(1, size > 0 ? static_cast<size_t>(size) : 1U));
  if (buffer == nullptr) {
    return -1;
  }
  size_t offset = 0;
  for (const key_list_node_t* node = box->m_list->header; node != nullptr; node = node->prev) {
    const tlv_t* tlv = static_cast<const tlv_t*>(node->value);
    const qb_tlv_head_t head = {tlv->type, tlv->length};
    memcpy(buffer + offset, &head, sizeof(head));
    offset += sizeof(head);
    memcpy(buffer + offset, tlv->value, static_cast<size_t>(tlv->length));
    offset += static_cast<size_t>(tlv->length);
  }
  box->m_serialized_buffer = buffer;
  return 0;
}

tlv_box_t* tlv_box_parse(const void* bytes, qb_s32_t size) {
  if (bytes == nullptr && size > 0) {
    return nullptr;
  }
  tlv_box_t* box = tlv_box_create();
  if (box == nullptr) {
    return nullptr;
  }
  if (tlv_box_freeze(box, bytes, size) != 0) {
    tlv_box_destroy(box);
    return nullptr;
  }
  tlv_box_parse_items(box);
  return box;
}

// ---- reading items ----------------------------------------------------------------------------

int tlv_box_get_char(const tlv_box_t* box, qb_s32_t type, char* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_short(const tlv_box_t* box, qb_s32_t type, qb_s16_t* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_int(const tlv_box_t* box, qb_s32_t type, qb_s32_t* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_long(const tlv_box_t* box, qb_s32_t type, qb_s64_t* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_longlong(const tlv_box_t* box, qb_s32_t type, qb_s64_t* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_float(const tlv_box_t* box, qb_s32_t type, float* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_double(const tlv_box_t* box, qb_s32_t type, double* out) {
  return tlv_box_get_scalar(box, type, out, sizeof(*out));
}

int tlv_box_get_string(const tlv_box_t* box, qb_s32_t type, char* buffer, qb_s32_t* inout_len) {
  return tlv_box_get_copy(box, type, buffer, inout_len);
}

int tlv_box_get_bytes(const tlv_box_t* box, qb_s32_t type, void* buffer, qb_s32_t* inout_len) {
  return tlv_box_get_copy(box, type, buffer, inout_len);
}

int tlv_box_get_bytes_ptr(const tlv_box_t* box, qb_s32_t type, const qb_u8_t** out_ptr,
                          qb_s32_t* out_len) {
  const tlv_t* tlv = tlv_box_get_node(box, type);
  if (tlv == nullptr || out_ptr == nullptr || out_len == nullptr) {
    return -1;
  }
  *out_ptr = tlv->value;
  *out_len = tlv->length;
  return 0;
}

int tlv_box_get_object(const tlv_box_t* box, qb_s32_t type, tlv_box_t** out_box) {
  const tlv_t* tlv = tlv_box_get_node(box, type);
  if (tlv == nullptr || out_box == nullptr) {
    return -1;
  }
  tlv_box_t* inner = tlv_box_parse(tlv->value, tlv->length);
  if (inner == nullptr) {
    return -1;
  }
  *out_box = inner;
  return 0;
}

tlv_t* tlv_box_get_node(const tlv_box_t* box, qb_s32_t type) {
  void* value = nullptr;
  if (box == nullptr || key_list_get(box->m_list, type, &value) != 0) {
    return nullptr;
  }
  return static_cast<tlv_t*>(value);
}

tlv_t* tlv_box_get_mask_node(const tlv_box_t* box, qb_s32_t key, qb_u32_t mask) {
  void* value = nullptr;
  if (box == nullptr || key_list_mask_get(box->m_list, key, mask, &value) != 0) {
    return nullptr;
  }
  return static_cast<tlv_t*>(value);
}

// ---- message builder ------------------------------------------------------------------------

int tlv_packet(qb_s32_t outer_type, qb_s32_t inner_type, const void* data, qb_s32_t length,
               tlv_send_fn_t send) {
  tlv_box_t* inner = tlv_box_create();
  tlv_box_t* outer = tlv_box_create();
  if (inner != nullptr && outer != nullptr && tlv_box_put_bytes(inner, inner_type, data, length) == 0 &&
      tlv_box_serialize(inner) == 0 && tlv_box_put_object(outer, outer_type, inner) == 0 &&
      tlv_box_serialize(outer) == 0 && send != nullptr) {
    send(tlv_box_get_buffer(outer), tlv_box_get_size(outer));
  }
  tlv_box_destroy(outer);
  tlv_box_destroy(inner);
  return 0;
}

int audio_tlv_packet(qb_s32_t outer_type, qb_s32_t inner_type, const void* data, qb_s32_t length) {
  if (outer_type == TLV_OUTER_TYPE_IT6620) {
    return tlv_packet(outer_type, inner_type, data, length, qb_cmd_send_to_it6620);
  }
  if (outer_type == TLV_OUTER_TYPE_IT6621) {
    return tlv_packet(outer_type, inner_type, data, length, qb_cmd_send_to_it6621);
  }
  return 0;
}
