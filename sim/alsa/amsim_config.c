/* Settings of the virtual sound card: configuration keys, environment overrides and the
 * resolution of board paths. */
#define _GNU_SOURCE
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "amsim.h"

/* The card's DMA buffer holds 200 ms of the widest stream it accepts: 192 kHz, 8 channels,
 * 32-bit samples. */
#define AMSIM_DEFAULT_MAX_BUFFER_BYTES (192000L * 8L * 4L / 5L)
#define AMSIM_ROOT_ENV "AUDIO_MANAGER_ROOT"
#define AMSIM_ROOT_PREFIX "${AUDIO_MANAGER_ROOT}"

typedef enum { AMSIM_KEY_REAL, AMSIM_KEY_INT, AMSIM_KEY_LONG, AMSIM_KEY_PATH, AMSIM_KEY_FAIL_MODE } amsim_key_kind_t;

typedef struct amsim_key {
    const char *name;
    amsim_key_kind_t kind;
    size_t offset;
} amsim_key_t;

static const amsim_key_t kAmsimKeys[] = {
    {"card", AMSIM_KEY_INT, offsetof(amsim_config_t, card)},
    {"rate_ppm", AMSIM_KEY_REAL, offsetof(amsim_config_t, rate_ppm)},
    {"si5351_channel", AMSIM_KEY_INT, offsetof(amsim_config_t, si5351_channel)},
    {"max_buffer_bytes", AMSIM_KEY_LONG, offsetof(amsim_config_t, max_buffer_bytes)},
    {"fail_after", AMSIM_KEY_LONG, offsetof(amsim_config_t, fail_after)},
    {"fail_mode", AMSIM_KEY_FAIL_MODE, offsetof(amsim_config_t, fail_mode)},
    {"si5351_bus", AMSIM_KEY_PATH, offsetof(amsim_config_t, si5351_bus)},
    {"infile", AMSIM_KEY_PATH, offsetof(amsim_config_t, infile)},
    {"outfile", AMSIM_KEY_PATH, offsetof(amsim_config_t, outfile)},
    {"timelog", AMSIM_KEY_PATH, offsetof(amsim_config_t, timelog)},
    {"stall_file", AMSIM_KEY_PATH, offsetof(amsim_config_t, stall_file)},
};
#define AMSIM_KEY_COUNT (sizeof(kAmsimKeys) / sizeof(kAmsimKeys[0]))

void amsim_config_defaults(amsim_config_t *cfg, int direction)
{
    memset(cfg, 0, sizeof(*cfg));
    cfg->direction = direction;
    cfg->max_buffer_bytes = AMSIM_DEFAULT_MAX_BUFFER_BYTES;
    strcpy(cfg->fail_mode, AMSIM_FAIL_DISCONNECT);
}

static const amsim_key_t *amsim_find_key(const char *name)
{
    for (size_t i = 0; i < AMSIM_KEY_COUNT; i++) {
        if (strcmp(kAmsimKeys[i].name, name) == 0)
            return &kAmsimKeys[i];
    }
    return NULL;
}

static int amsim_parse_real(const char *text, double *out)
{
    char *end = NULL;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0')
        return -EINVAL;
    *out = v;
    return 0;
}

static int amsim_parse_long(const char *text, long *out)
{
    char *end = NULL;
    errno = 0;
    long v = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0')
        return -EINVAL;
    *out = v;
    return 0;
}

int amsim_config_set(amsim_config_t *cfg, const char *key, const char *text)
{
    const amsim_key_t *k = amsim_find_key(key);
    if (k == NULL || text == NULL)
        return -EINVAL;
    char *field = (char *)cfg + k->offset;
    long lv = 0;
    switch (k->kind) {
    case AMSIM_KEY_REAL:
        return amsim_parse_real(text, (double *)(void *)field);
    case AMSIM_KEY_INT:
        if (amsim_parse_long(text, &lv) < 0 || lv < -1000000 || lv > 1000000)
            return -EINVAL;
        *(int *)(void *)field = (int)lv;
        return 0;
    case AMSIM_KEY_LONG:
        if (amsim_parse_long(text, &lv) < 0 || lv < 0)
            return -EINVAL;
        *(long *)(void *)field = lv;
        return 0;
    case AMSIM_KEY_PATH:
        if (strlen(text) >= AMSIM_PATH_MAX)
            return -ENAMETOOLONG;
        strcpy(field, text);
        return 0;
    case AMSIM_KEY_FAIL_MODE:
        if (strcmp(text, AMSIM_FAIL_DISCONNECT) != 0 && strcmp(text, AMSIM_FAIL_STALL) != 0 &&
            strcmp(text, AMSIM_FAIL_EIO) != 0 && strcmp(text, AMSIM_FAIL_EBADFD) != 0)
            return -EINVAL;
        strcpy(field, text);
        return 0;
    }
    return -EINVAL;
}

static int amsim_config_set_node(amsim_config_t *cfg, snd_config_t *node, const char *id)
{
    char *text = NULL;
    int err = snd_config_get_ascii(node, &text);
    if (err < 0) {
        SNDERR("amsim: bad value for %s", id);
        return err;
    }
    err = amsim_config_set(cfg, id, text);
    if (err < 0)
        SNDERR("amsim: bad value for %s: %s", id, text);
    free(text);
    return err;
}

static int amsim_config_load_level(amsim_config_t *cfg, snd_config_t *conf, int top);

/* "playback { ... }" and "capture { ... }" hold keys for one direction only. */
static int amsim_config_load_section(amsim_config_t *cfg, snd_config_t *node, const char *id)
{
    const char *mine = cfg->direction == AMSIM_DIR_PLAYBACK ? "playback" : "capture";
    if (snd_config_get_type(node) != SND_CONFIG_TYPE_COMPOUND) {
        SNDERR("amsim: %s must be a compound", id);
        return -EINVAL;
    }
    if (strcmp(id, mine) != 0)
        return 0;
    return amsim_config_load_level(cfg, node, 0);
}

static int amsim_is_section(const char *id)
{
    return strcmp(id, "playback") == 0 || strcmp(id, "capture") == 0;
}

static int amsim_is_ignored(const char *id)
{
    static const char *const kIgnored[] = {"comment", "type", "hint", "device", "subdevice"};
    for (size_t i = 0; i < sizeof(kIgnored) / sizeof(kIgnored[0]); i++) {
        if (strcmp(id, kIgnored[i]) == 0)
            return 1;
    }
    return 0;
}

/* pass 0: the keys of this level; pass 1 (top level only): the direction sections. */
static int amsim_config_load_node(amsim_config_t *cfg, snd_config_t *n, const char *id, int top,
                                  int pass)
{
    if (amsim_is_ignored(id))
        return 0;
    if (top && amsim_is_section(id))
        return pass == 1 ? amsim_config_load_section(cfg, n, id) : 0;
    if (pass == 1)
        return 0;
    if (amsim_find_key(id) == NULL) {
        SNDERR("amsim: unknown field %s", id);
        return -EINVAL;
    }
    return amsim_config_set_node(cfg, n, id);
}

static int amsim_config_load_pass(amsim_config_t *cfg, snd_config_t *conf, int top, int pass)
{
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf) {
        snd_config_t *n = snd_config_iterator_entry(i);
        const char *id = NULL;
        if (snd_config_get_id(n, &id) < 0)
            continue;
        int err = amsim_config_load_node(cfg, n, id, top, pass);
        if (err < 0)
            return err;
    }
    return 0;
}

static int amsim_config_load_level(amsim_config_t *cfg, snd_config_t *conf, int top)
{
    int err = amsim_config_load_pass(cfg, conf, top, 0);
    if (err < 0 || !top)
        return err;
    /* The direction sections override the shared keys whatever their order in the file. */
    return amsim_config_load_pass(cfg, conf, top, 1);
}

int amsim_config_load(amsim_config_t *cfg, snd_config_t *conf)
{
    return amsim_config_load_level(cfg, conf, 1);
}

static void amsim_env_name(char *out, size_t size, const char *key, const char *suffix)
{
    size_t n = (size_t)snprintf(out, size, "AMSIM_%s%s", key, suffix);
    for (size_t i = 0; i < n && i < size; i++)
        out[i] = (char)toupper((unsigned char)out[i]);
}

static void amsim_env_apply_one(amsim_config_t *cfg, const char *key, const char *suffix)
{
    char name[96];
    amsim_env_name(name, sizeof(name), key, suffix);
    const char *value = getenv(name);
    if (value != NULL && amsim_config_set(cfg, key, value) < 0)
        SNDERR("amsim: ignoring bad %s=%s", name, value);
}

void amsim_config_apply_env(amsim_config_t *cfg)
{
    const char *dir = cfg->direction == AMSIM_DIR_PLAYBACK ? "PLAY" : "CAP";
    char card_suffix[32];
    char dir_suffix[32];
    snprintf(card_suffix, sizeof(card_suffix), "_%d", cfg->card);
    snprintf(dir_suffix, sizeof(dir_suffix), "_%s%d", dir, cfg->card);
    for (size_t i = 0; i < AMSIM_KEY_COUNT; i++) {
        const char *key = kAmsimKeys[i].name;
        if (strcmp(key, "card") == 0)
            continue;
        /* From the widest to the narrowest: the most specific variable wins. */
        amsim_env_apply_one(cfg, key, "");
        amsim_env_apply_one(cfg, key, card_suffix);
        amsim_env_apply_one(cfg, key, dir_suffix);
    }
}

/* The text that replaces the template character c (after '%'), or NULL when c is no template. */
static const char *amsim_template_piece(const amsim_config_t *cfg, char c, char *buf, size_t size)
{
    switch (c) {
    case 'c':
        snprintf(buf, size, "%d", cfg->card);
        return buf;
    case 'd':
        return cfg->direction == AMSIM_DIR_PLAYBACK ? "play" : "cap";
    case '%':
        return "%";
    default:
        return NULL;
    }
}

/* Expands %c (card number), %d ("play" or "cap") and %% into out. */
static int amsim_expand_template(const amsim_config_t *cfg, const char *raw, char *out,
                                 size_t size)
{
    size_t o = 0;
    for (const char *p = raw; *p != '\0'; p++) {
        char buf[32];
        char one[2] = {*p, '\0'};
        const char *piece = p[0] == '%' ? amsim_template_piece(cfg, p[1], buf, sizeof(buf)) : NULL;
        if (piece != NULL)
            p++;
        else
            piece = one;
        size_t len = strlen(piece);
        if (o + len >= size)
            return -ENAMETOOLONG;
        memcpy(out + o, piece, len);
        o += len;
    }
    out[o] = '\0';
    return 0;
}

/* Board paths live under $AUDIO_MANAGER_ROOT when it is set: an absolute path, or one that
 * begins with "${AUDIO_MANAGER_ROOT}", is prefixed with the root; a relative path is kept. */
static int amsim_apply_root(const char *path, char *out, size_t size)
{
    const char *root = getenv(AMSIM_ROOT_ENV);
    if (root == NULL)
        root = "";
    const char *rest = path;
    int rooted = path[0] == '/';
    if (strncmp(path, AMSIM_ROOT_PREFIX, strlen(AMSIM_ROOT_PREFIX)) == 0) {
        rest = path + strlen(AMSIM_ROOT_PREFIX);
        rooted = 1;
    }
    int n = rooted ? snprintf(out, size, "%s%s", root, rest) : snprintf(out, size, "%s", rest);
    return n < 0 || (size_t)n >= size ? -ENAMETOOLONG : 0;
}

int amsim_resolve_path(const amsim_config_t *cfg, const char *raw, char *out, size_t size)
{
    char expanded[AMSIM_PATH_MAX];
    if (raw == NULL || raw[0] == '\0') {
        if (size > 0)
            out[0] = '\0';
        return 0;
    }
    int err = amsim_expand_template(cfg, raw, expanded, sizeof(expanded));
    if (err < 0)
        return err;
    return amsim_apply_root(expanded, out, size);
}
