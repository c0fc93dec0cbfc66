// SPDX-License-Identifier: MIT
// The mark of a definition that belongs to the public interface. src/qzlib.map lists the
// same names for the linker; the interface test keeps both and the header in step.
#pragma once

#ifndef QZ_EXPORT // see base/all_hidden.h
#define QZ_EXPORT __attribute__((visibility("default")))
#endif
