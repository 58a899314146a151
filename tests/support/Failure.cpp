#include "Failure.h"

#include <gtest/gtest.h>

void NoteFailure(const std::string &what) {
    ADD_FAILURE() << what;
}
