// What the module frame offers to the module's other folders.
#pragma once

#include "CallWrappers.h"
#include "DriverHandle.h"
#include "MessageText.h"
#include "ModuleObjects.h"
#include "Registration.h"
#include "Trace.h"
#include "UserdataArguments.h"
