/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* vrel2: asks the host's access policy whether a user may do an action. A C interface,
   usable from C and C++. All three functions may be called from any thread at any time,
   concurrently; the library serialises its own state. vrel2_init and vrel2_release are
   counted: the policy is loaded by the first vrel2_init and dropped by the release that
   balances the last one, so independent users in one process (several servers) each
   init and release once. The policy file is chosen by the first vrel2_init: the file named
   by the environment variable VREL2_POLICY (ignored in set-user-ID and similar processes),
   else /etc/vrel2/policy.conf; while the library stays initialised, every check notices a
   change of that file and reloads it. The caller owns every vrel2_error; the library only
   writes it during a call, and a null pointer is accepted wherever one is taken. */
#ifndef VREL2_H
#define VREL2_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(__GNUC__)
#define VREL2_EXPORT __attribute__((visibility("default")))
#else
#define VREL2_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Values of vrel2_error.code. Only VREL2_NOT_PERMITTED is an answer; every other non-zero
   code means the question could not be answered, and text says why. */
#define VREL2_OK 0               /* permitted, or initialised; text is empty */
#define VREL2_FAILED 1           /* invalid argument (null or empty user or action), or out of memory */
#define VREL2_NOT_PERMITTED 2    /* the policy refuses; text names the rule that decided */
#define VREL2_POLICY_ERROR 3     /* the policy file is missing, unreadable or malformed */
#define VREL2_LOOKUP_ERROR 4     /* the user or group database failed while a group rule was tried */
#define VREL2_NOT_INITIALISED 5  /* no vrel2_init is in force */

#define VREL2_TEXT_SIZE 256

/* The outcome of a call: a code above and a NUL-terminated text of at most
   VREL2_TEXT_SIZE - 1 bytes, cut on a UTF-8 character boundary when longer. The layout
   (260 bytes, code at offset 0, text at offset 4) is part of the ABI. */
typedef struct vrel2_error {
    int32_t code;
    char text[VREL2_TEXT_SIZE];
} vrel2_error;

#ifdef __cplusplus
static_assert(sizeof(vrel2_error) == 260, "vrel2_error is 260 bytes");
static_assert(offsetof(vrel2_error, code) == 0, "code is at offset 0");
static_assert(offsetof(vrel2_error, text) == 4, "text is at offset 4");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(vrel2_error) == 260, "vrel2_error is 260 bytes");
_Static_assert(offsetof(vrel2_error, code) == 0, "code is at offset 0");
_Static_assert(offsetof(vrel2_error, text) == 4, "text is at offset 4");
#endif

/* Takes one reference on the library; the first one loads the policy, later ones check
   that it is still usable. True with code VREL2_OK; false with the record filled
   (VREL2_POLICY_ERROR naming the file, and for a syntax error the line) when the policy
   cannot be used. A failed call takes no reference and needs no vrel2_release. */
VREL2_EXPORT bool vrel2_init(vrel2_error* error);

/* True with code VREL2_OK when the policy lets `user` (a login name) do `action`.
   False with VREL2_NOT_PERMITTED when it refuses, with another code when it cannot
   answer. Checks the policy file for changes first and reloads it if needed; while the
   changed file does not load, every check fails with that load's VREL2_POLICY_ERROR. */
VREL2_EXPORT bool vrel2_check_username(char const* user, char const* action, vrel2_error* error);

/* Gives back one reference taken by a successful vrel2_init; the last one drops the
   policy. A release without a matching init is ignored. */
VREL2_EXPORT void vrel2_release(void);

#ifdef __cplusplus
}
#endif

#endif /* VREL2_H */
