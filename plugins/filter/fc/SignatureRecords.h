// The binder's records of the types that occur in this module's bound functions.
#pragma once

#include "CallWrappers.h"
#include "SLB3.h"

/// The record of a native function's type.
const SLB3::BaseInfo *SignatureRecord(IntFromVoid);
const SLB3::BaseInfo *SignatureRecord(BoolFromBool);
const SLB3::BaseInfo *SignatureRecord(BoolFromStr);
const SLB3::BaseInfo *SignatureRecord(BoolFromStrStr);
const SLB3::BaseInfo *SignatureRecord(BoolFromDomStrStr);
