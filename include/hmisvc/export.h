#ifndef HMISVC_EXPORT_H
#define HMISVC_EXPORT_H

/**
 * @file
 * Export mark of the library's interface.
 */

/** Everything is hidden by default; only what carries this mark is exported. */
#define HMISVC_API __attribute__((visibility("default")))

#endif
