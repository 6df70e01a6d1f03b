/* Marks a name as exported by librDxsH.so. Everything unmarked stays hidden. */
#ifndef RDX_COMMON_EXPORT_H
#define RDX_COMMON_EXPORT_H

#define RDX_API __attribute__((visibility("default")))

#endif
