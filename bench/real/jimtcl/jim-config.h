/* jimtcl's public configuration for a Linux glibc MIPS target (any ABI),
 * as its configure --full writes it. */
#ifndef _JIM_CONFIG_H
#define _JIM_CONFIG_H
#define HAVE_LONG_LONG 1
#define JIM_UTF8 1
#define JIM_VERSION 81
#define SIZEOF_INT 4
#endif
