/* Reports whose words differ from the Halide runtime's.
 *
 * The runtime defines every halide_error_* function weakly; the ones here
 * replace those whose text this library words otherwise (the runtime says
 * "nullptr" where the library's messages say NULL).  They behave as the
 * runtime's do: the text is built in a 1024-byte block from halide_malloc,
 * handed to halide_error, and freed; if the block cannot be had, the
 * runtime's fixed text goes to halide_error instead.  The code is returned
 * either way.  The other reports of the frame print exactly the library's
 * words already and are left to the runtime. */
#include <stddef.h>

#include "HalideRuntime.h"

enum { TEXT_SIZE = 1024 };

static int report(void *user_context, const char *const *parts, int code) {
    char *text = (char *)halide_malloc(user_context, TEXT_SIZE);
    if (!text) {
        halide_error(user_context, "Printer buffer allocation failed.\n");
        return code;
    }
    size_t n = 0;
    for (; *parts; parts++)
        for (const char *s = *parts; *s && n + 1 < TEXT_SIZE; s++) text[n++] = *s;
    text[n] = '\0';
    halide_error(user_context, text);
    halide_free(user_context, text);
    return code;
}

int halide_error_buffer_argument_is_null(void *user_context, const char *buffer_name) {
    const char *parts[] = {"Buffer argument ", buffer_name ? buffer_name : "", " is NULL", NULL};
    return report(user_context, parts, halide_error_code_buffer_argument_is_null);
}

int halide_error_out_of_memory(void *user_context) {
    const char *parts[] = {"Out of memory (halide_malloc returned NULL)", NULL};
    return report(user_context, parts, halide_error_code_out_of_memory);
}
