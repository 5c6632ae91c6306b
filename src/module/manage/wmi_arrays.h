// String-array properties of the list classes, read the way the list
// classes check them: present, of one dimension, with readable bounds.
#pragma once

#include <string>
#include <vector>

#include "platform/wmi.h"

namespace ovsvc {

enum class ArrayRead { kAbsent, kNotOneDimension, kNoBounds, kRead };

// The elements in index order, and the bounds as read.
struct StringArray {
    std::vector<std::u16string> items;
    platform::LONG lower = 0;
    platform::LONG upper = -1;
};

// A property that is not a string array reads as absent.
ArrayRead ReadArrayProperty(const platform::CInstance& instance, std::u16string_view name,
                            StringArray* array);

}  // namespace ovsvc
