// The health iterations of a run, and other events.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "HealthLine.h"

/// The result of an iteration.
enum class HealthStep { Nothing, FailOpen, CheckFailed, Recovered };

struct HealthRow {
    double time = 0;  ///< Seconds since 1970 at the start of the iteration.
    HealthIteration iteration;
    HealthStep step = HealthStep::Nothing;
    bool resumes = false;  ///< Calls between it and the previous one were not evaluated, or the clock was set back.
};

/// Any other event, in UTF-8. A repeated error is one note.
struct HealthNote {
    enum class Kind { Mark, Restart, Event, Notification, Error };
    Kind kind;
    double time;   ///< Seconds since 1970.
    double until;  ///< Of the last repetition.
    int count;
    std::string text;
};

/// Any thread.
class HealthHistory {
public:
    void AddIteration(double time, const HealthIteration &iteration);
    void AddNote(HealthNote::Kind kind, double time, std::string text);

    std::vector<HealthRow> Rows() const;
    std::vector<HealthNote> Notes() const;
    /// Notes that were dropped because there were too many.
    std::size_t NotesLeftOut() const;
    /// All errors, repeated ones and those that were dropped included.
    std::size_t Errors() const;

private:
    mutable std::mutex m_lock;
    std::vector<HealthRow> m_rows;
    std::vector<HealthNote> m_notes;
    std::size_t m_notesLeftOut = 0;
    std::size_t m_errors = 0;
    std::size_t m_longBytes = 0;  ///< Of long texts.
};

/// The kind of the iteration, judged by the previous one; null for the first.
HealthStep ClassifyHealthStep(const HealthIteration *before, const HealthIteration &iteration);

/// Leaves out rows between which little happens: transitions stay, and of the others the highest and lowest values of
/// each metric in every stretch. If there are too many transitions, a selection from the whole run stays.
/// @param limit  the maximum number of rows, if possible; from 100.
std::vector<HealthRow> ThinOut(const std::vector<HealthRow> &rows, std::size_t limit);
