// One held fan as FanOwner drives it, whatever its kind: how a duty cycle is written and how the
// fan is given back. hwmon and NVML fans differ only here; holds and the journal are FanOwner's.
#pragma once

#include <string>

#include "helper/FanJournal.h"

namespace kelvo::helperd {

class FanDevice {
public:
    struct Write {
        bool ok = true;
        // Someone outside the helper changed the fan's mode: a fan already held is theirs now.
        bool changedFromOutside = false;
        // The fan is gone (its device went away and did not come back under another path):
        // there is nothing left to write or to give back.
        bool gone = false;
        // Worth a line in the helper's log even though the write worked.
        std::string note;
        std::string error;
    };

    virtual ~FanDevice() = default;

    virtual const std::string& identity() const = 0;
    // The mode the fan is in before the helper takes it: journaled before the first write.
    virtual JournalEntry originalMode() const = 0;
    // Sets duty cycle `pwm` (0-255). A failed first write leaves the fan as it found it.
    virtual Write write(int pwm) = 0;
    // Gives the fan back to `original` (this fan's journal entry).
    virtual bool restore(const JournalEntry& original, std::string* error) = 0;
    // `original` in words, for the log.
    virtual std::string describe(const JournalEntry& original) const = 0;
};

}  // namespace kelvo::helperd
