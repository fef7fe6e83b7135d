/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Compiled as C: proves that vrel2.h is a valid C header, and gives the C++ tests the
   record layout as a C compiler sees it. */
#include <vrel2.h>

#include <stddef.h>

_Static_assert(sizeof(vrel2_error) == 260, "vrel2_error is 260 bytes in C");
_Static_assert(offsetof(vrel2_error, text) == 4, "text is at offset 4 in C");

size_t vrel2_c_record_size(void);
size_t vrel2_c_text_offset(void);
int vrel2_c_check_code(char const* user, char const* action);

size_t vrel2_c_record_size(void)
{
    return sizeof(vrel2_error);
}

size_t vrel2_c_text_offset(void)
{
    return offsetof(vrel2_error, text);
}

/* The code of one check made from C: VREL2_OK when allowed. */
int vrel2_c_check_code(char const* user, char const* action)
{
    vrel2_error error = {0, {0}};
    bool const allowed = vrel2_check_username(user, action, &error);
    return allowed ? VREL2_OK : error.code;
}
