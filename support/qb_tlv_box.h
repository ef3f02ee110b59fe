// TLV boxes: the message container of every loopback exchange (commands from cmd_core, JSON
// reports to it, requests to the bridge services).
//
// Wire layout of a serialized box: items back to back, no box header, no padding, no terminator.
// Each item is an 8-byte head (type, length: signed 32-bit, little-endian host order) followed by
// `length` value bytes. The next item starts at offset 8 + length.
//
// All functions return 0 on success and -1 on failure unless stated otherwise.
#pragma once

#include "qb_types.h"

// The 8-byte head of one serialized item.
typedef struct qb_tlv_head_s {
  qb_s32_t type;
  qb_s32_t length;
} qb_tlv_head_t;

// Width of an item head on the wire.
inline constexpr qb_s32_t TLV_HEAD_BYTES = static_cast<qb_s32_t>(sizeof(qb_tlv_head_t));

// One item: its type, value length and a private heap copy of the value bytes (owned by the item).
typedef struct tlv_s {
  qb_s32_t type;
  qb_s32_t length;
  qb_u8_t* value;
} tlv_t;

// Called with each entry's value when a key list is destroyed.
typedef void (*key_list_releaser_t)(void* value);

// One list entry. `prev` leads to the entry added after this one (toward `tail`), `next` to the
// entry added before it. Every walk starts at `header` and follows `prev`.
typedef struct key_list_node_s {
  qb_s32_t key;
  void* value;
  struct key_list_node_s* prev;
  struct key_list_node_s* next;
} key_list_node_t;

// Insertion-ordered list with unique keys.
typedef struct key_list_s {
  qb_s32_t count;
  key_list_node_t* header;  // first entry added
  key_list_node_t* tail;    // last entry added
  key_list_releaser_t releaser;
} key_list_t;

// A box. It is frozen (no more items, no second serialization) once `m_serialized_buffer` is set,
// by tlv_box_serialize or tlv_box_parse. The box owns its list, items, values and buffer.
typedef struct tlv_box_s {
  key_list_t* m_list;
  qb_u8_t* m_serialized_buffer;
  qb_s32_t m_serialized_bytes;  // running size while building; buffer size once frozen
} tlv_box_t;

// ---- key list -------------------------------------------------------------------------------
key_list_t* key_list_create(key_list_releaser_t releaser);
// Calls the releaser (when set) on every entry's value, frees the entries and the list. Returns 0.
int key_list_destroy(key_list_t* list);
// Appends at the tail; -1 if the key exists or memory runs out.
int key_list_add(key_list_t* list, qb_s32_t key, void* value);
int key_list_get(const key_list_t* list, qb_s32_t key, void** out_value);
// 1 if present, 0 if not.
int key_list_find_key(const key_list_t* list, qb_s32_t key);
// Replaces the stored value pointer of an existing key (the old value is not released); -1 if absent.
int key_list_edit(key_list_t* list, qb_s32_t key, void* value);
// Value of the first entry (insertion order) with ((entry key XOR key) AND mask) == 0; -1 if none.
int key_list_mask_get(const key_list_t* list, qb_s32_t key, qb_u32_t mask, void** out_value);
qb_s32_t key_list_count(const key_list_t* list);
// -1 if count exceeds capacity; otherwise writes the keys in insertion order and returns their number.
int key_list_keyset(const key_list_t* list, qb_s32_t* keys, qb_s32_t capacity);

// ---- creation and teardown ------------------------------------------------------------------
tlv_box_t* tlv_box_create(void);
int tlv_box_destroy(tlv_box_t* box);
// The serialized buffer (nullptr before serializing) and m_serialized_bytes.
qb_u8_t* tlv_box_get_buffer(tlv_box_t* box);
qb_s32_t tlv_box_get_size(const tlv_box_t* box);

// ---- adding items: private copy; -1 (box unchanged) when frozen or the type is present ---------
int tlv_box_put_char(tlv_box_t* box, qb_s32_t type, char value);
int tlv_box_put_short(tlv_box_t* box, qb_s32_t type, qb_s16_t value);
int tlv_box_put_int(tlv_box_t* box, qb_s32_t type, qb_s32_t value);
int tlv_box_put_long(tlv_box_t* box, qb_s32_t type, qb_s64_t value);
int tlv_box_put_longlong(tlv_box_t* box, qb_s32_t type, qb_s64_t value);
int tlv_box_put_float(tlv_box_t* box, qb_s32_t type, float value);
int tlv_box_put_double(tlv_box_t* box, qb_s32_t type, double value);
// Stores the text and its terminating NUL (length strlen + 1).
int tlv_box_put_string(tlv_box_t* box, qb_s32_t type, const char* text);
int tlv_box_put_bytes(tlv_box_t* box, qb_s32_t type, const void* data, qb_s32_t length);
// Stores the serialized bytes of the already serialized box `inner` (-1 if it is not serialized).
int tlv_box_put_object(tlv_box_t* box, qb_s32_t type, tlv_box_t* inner);

// ---- serializing and parsing ----------------------------------------------------------------
// -1 if already frozen; otherwise writes every item in insertion order and freezes the box.
int tlv_box_serialize(tlv_box_t* box);
// A new frozen box over a private copy of the input; nullptr when memory runs out or bytes is
// missing while size > 0. An item head or value running past `size` ends the walk.
tlv_box_t* tlv_box_parse(const void* bytes, qb_s32_t size);

// ---- reading items (exact type) --------------------------------------------------------------
// Copy 1/2/4/8/8/4/8 bytes from the start of the value; -1 if the type is absent.
int tlv_box_get_char(const tlv_box_t* box, qb_s32_t type, char* out);
int tlv_box_get_short(const tlv_box_t* box, qb_s32_t type, qb_s16_t* out);
int tlv_box_get_int(const tlv_box_t* box, qb_s32_t type, qb_s32_t* out);
int tlv_box_get_long(const tlv_box_t* box, qb_s32_t type, qb_s64_t* out);
int tlv_box_get_longlong(const tlv_box_t* box, qb_s32_t type, qb_s64_t* out);
int tlv_box_get_float(const tlv_box_t* box, qb_s32_t type, float* out);
int tlv_box_get_double(const tlv_box_t* box, qb_s32_t type, double* out);
// *inout_len holds the capacity on entry; -1 if absent or capacity < stored length; otherwise
// zero-fills the whole capacity, copies the stored bytes and sets *inout_len to the stored length.
int tlv_box_get_string(const tlv_box_t* box, qb_s32_t type, char* buffer, qb_s32_t* inout_len);
int tlv_box_get_bytes(const tlv_box_t* box, qb_s32_t type, void* buffer, qb_s32_t* inout_len);
// Pointer to the stored value bytes (owned by the box) and their length; no copy.
int tlv_box_get_bytes_ptr(const tlv_box_t* box, qb_s32_t type, const qb_u8_t** out_ptr,
                          qb_s32_t* out_len);
// Parses the stored value as a box into *out_box; the caller destroys it.
int tlv_box_get_object(const tlv_box_t* box, qb_s32_t type, tlv_box_t** out_box);
// The item of that type, or nullptr.
tlv_t* tlv_box_get_node(const tlv_box_t* box, qb_s32_t type);
// The first item (insertion order) whose type satisfies ((type XOR key) AND mask) == 0, or nullptr.
tlv_t* tlv_box_get_mask_node(const tlv_box_t* box, qb_s32_t key, qb_u32_t mask);

// ---- message builder ------------------------------------------------------------------------
// Receives the bytes of a finished message.
typedef int (*tlv_send_fn_t)(const void* data, int size);

// Builds {outer_type: {inner_type: data[length]}} and, when `send` is given, hands its
// 16 + length bytes to it. Always returns 0.
int tlv_packet(qb_s32_t outer_type, qb_s32_t inner_type, const void* data, qb_s32_t length,
               tlv_send_fn_t send);

// Outer types that address the bridge services.
inline constexpr qb_s32_t TLV_OUTER_TYPE_IT6620 = 7;
inline constexpr qb_s32_t TLV_OUTER_TYPE_IT6621 = 8;

// tlv_packet sent to the IT6620 service for outer type 7, to the IT6621 service for 8; any other
// outer type sends nothing. Always returns 0.
int audio_tlv_packet(qb_s32_t outer_type, qb_s32_t inner_type, const void* data, qb_s32_t length);
