// SPDX-License-Identifier: MIT
// Included in front of every file where src/CMakeLists.txt says so: on 32-bit MIPS, by GCC.
//
// Every call there loads an address from the object's table. For a function that another object may
// define, GCC has the table pointer made ready before the call as well: a stub that looks the
// function up at its first call wants it. There are no stubs in this object (-z now), and of a
// hidden function GCC knows that it needs none. So all declarations, libc's and the public ones too,
// are hidden from here on. That is for the compiler alone: the assembler is not told, and what
// is exported is what src/qzlib.map lists.
#pragma once

#pragma GCC visibility push(hidden)
#define QZ_EXPORT
