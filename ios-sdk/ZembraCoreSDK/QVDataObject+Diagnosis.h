#pragma once

#include <string>
#include <vector>

#include <ZembraCoreSDK/QVDataObject.h>

/// Tells what the mapping leaves out, for the tests of model authors: the mapping itself is silent by rule.
namespace zembra {

/// What a new object of class `cls` would leave out of the dictionary `json`, and what it would be left
/// without: a line for each key that finds no place, with the reason, then a line for each declared property
/// that holds nothing (scalars and plain `Value`s aside, which the mapping never assigns). Data objects in
/// properties are looked through in the same way, their lines with the property's name in front. Empty where
/// everything finds its place.
///
/// It makes and fills an object, so hooks and overrides of the class run, on the caller's thread. Where `cls`
/// is no data-object class that objects can be made of, or `json` no dictionary, one line says so.
[[nodiscard]] ZEMBRA_EXPORT std::vector<std::string> mappingRemarks(const ClassDescription& cls,
                                                                    const Value& json);

}  // namespace zembra
