// SPDX-License-Identifier: Apache-2.0

// The invariants of the whole table, checked by walking it: for every test that changes it, and cheap enough on small
// tables to be run after each step.
#pragma once

#include <string>

// What is wrong first, or nothing when all is well:
//  - every tree is sound in each of its indexes;
//  - every MAC entry is on its port's tree and once on the list of all entries;
//  - records point at the record whose tree they are on;
//  - ordinary ports are on the global tree and on one bridge domain's at most, dummy ports on the latter only;
//  - VTEPs are on VXLAN ports only;
//  - counters and pools count the records that there are;
//  - lookups of an address answer what a search through the ports answers.
// Takes the table lock. Leaves no trace point. A table that does not run has to hold nothing.
std::string audit_table();
