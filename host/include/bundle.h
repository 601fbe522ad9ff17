/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_BUNDLE_H
#define HOST_BUNDLE_H

#include <stddef.h>

#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * An ordered collection of keys, each with one typed value.
 *
 * Keys are non-empty texts without duplicates. One bundle belongs to one thread at a time; copies
 * made by bundle_dup() are independent, also across threads.
 */
typedef struct _bundle_t bundle;

/** One entry of a bundle, as bundle_foreach() shows it. */
typedef struct keyval_t bundle_keyval_t;

enum bundle_type {
    BUNDLE_TYPE_NONE = 0, /**< no such entry */
    BUNDLE_TYPE_ANY = 1,  /**< no entry has this type */
    BUNDLE_TYPE_STR = 2,
    BUNDLE_TYPE_STR_ARRAY = 3,
    BUNDLE_TYPE_BYTE = 4,
    BUNDLE_TYPE_BYTE_ARRAY = 5 /**< known by name; this platform cannot store one */
};

enum bundle_error_e {
    BUNDLE_ERROR_NONE = 0,
    BUNDLE_ERROR_OUT_OF_MEMORY = -12,
    BUNDLE_ERROR_KEY_EXISTS = -17,
    BUNDLE_ERROR_INVALID_PARAMETER = -22,
    BUNDLE_ERROR_KEY_NOT_AVAILABLE = -126
};

/** Creates an empty bundle, the caller's to bundle_free(); null when memory is short. */
HOST_API bundle *bundle_create(void);

/**
 * Frees a bundle and everything that was read from it.
 *
 * @return BUNDLE_ERROR_NONE, or BUNDLE_ERROR_INVALID_PARAMETER for null
 */
HOST_API int bundle_free(bundle *b);

/**
 * Copies a bundle. Changes of one do not affect the other.
 *
 * @return the copy, the caller's to bundle_free(); null for null or when memory is short
 */
HOST_API bundle *bundle_dup(bundle *b_from);

/**
 * Adds an entry at the end. Key and value are copied; on failure the bundle is as it was.
 *
 * A text may be empty. A byte value has at least one byte; an array may have no element, and then
 * its pointer may be null.
 *
 * @return BUNDLE_ERROR_NONE
 *         BUNDLE_ERROR_INVALID_PARAMETER  an argument or an element is null, the key is empty, the
 *                                         size is 0, the length is negative, or a key or value is
 *                                         of 2 GiB or more
 *         BUNDLE_ERROR_KEY_EXISTS         the bundle has that key; its value stays
 *         BUNDLE_ERROR_OUT_OF_MEMORY
 */
HOST_API int bundle_add_str(bundle *b, const char *key, const char *str);
HOST_API int bundle_add_byte(bundle *b, const char *key, const void *byte, const size_t size);
HOST_API int bundle_add_str_array(bundle *b, const char *key, const char **str_array,
                                  const int len);

/**
 * Reads the value of a key. The value belongs to the bundle: it is valid until the key is deleted
 * or the bundle is freed, and must not be written to.
 *
 * @return BUNDLE_ERROR_NONE
 *         BUNDLE_ERROR_KEY_NOT_AVAILABLE  no such key
 *         BUNDLE_ERROR_INVALID_PARAMETER  an argument is null, or the entry is of another type
 */
HOST_API int bundle_get_str(bundle *b, const char *key, char **str);
HOST_API int bundle_get_byte(bundle *b, const char *key, void **byte, size_t *size);

/**
 * The texts of an array entry, *len of them, followed by a null pointer. Valid as long as the value
 * of bundle_get_str().
 *
 * @return null, with *len untouched, when an argument is null, the key is absent or its entry is of
 *         another type
 */
HOST_API const char **bundle_get_str_array(bundle *b, const char *key, int *len);

/** The number of entries; 0 for null. */
HOST_API int bundle_get_count(bundle *b);

/** The type of an entry; BUNDLE_TYPE_NONE when there is none, or for null. */
HOST_API int bundle_get_type(bundle *b, const char *key);

/**
 * Removes an entry.
 *
 * @return BUNDLE_ERROR_NONE
 *         BUNDLE_ERROR_KEY_NOT_AVAILABLE  no such key
 *         BUNDLE_ERROR_INVALID_PARAMETER  an argument is null
 */
HOST_API int bundle_del(bundle *b, const char *key);

/** Called for one entry; key and kv are valid only during the call. */
typedef void (*bundle_iterator_t)(const char *key, const int type, const bundle_keyval_t *kv,
                                  void *user_data);

/**
 * Calls iter for every entry, in the order in which they were added.
 *
 * iter may remove entries, and may then not be called for some of the others; it must not add
 * entries or free the bundle. Does nothing when b or iter is null.
 */
HOST_API void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data);

/** The type of an entry; BUNDLE_TYPE_NONE for null. */
HOST_API int bundle_keyval_get_type(bundle_keyval_t *kv);

/** 1 when the entry holds an array, 0 when it does not or kv is null. */
HOST_API int bundle_keyval_type_is_array(bundle_keyval_t *kv);

/**
 * The value of a string or byte entry and its size in bytes, a string's terminating zero included.
 * The value stays the bundle's.
 *
 * @return BUNDLE_ERROR_NONE, or BUNDLE_ERROR_INVALID_PARAMETER for null or for an array
 */
HOST_API int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size);

#ifdef __cplusplus
}
#endif

#endif
