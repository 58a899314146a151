// Tests that change the machine on which they run.
#pragma once

/// With FC_LEAVE_MACHINE_ALONE in the environment those tests are left out of this run, and the results name their
/// suites. Call it after InitGoogleTest.
void LeaveMachineAloneIfAsked();
