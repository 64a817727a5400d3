// The declarations of the band-selection arguments that NDVI and extract band share.
#pragma once

#include "framework/argument_declarations.h"

namespace pw::functions {

inline constexpr framework::Choice kMissingBandActions[] = {{0, "leave the band out"}, {1, "fail"}};
inline constexpr framework::ArgumentDeclaration kMissingBandAction =
    framework::Integer("MissingBandAction", 0, "what a band that is not found does")
        .OneOf(kMissingBandActions);
inline constexpr framework::ArgumentDeclaration kWavelengthMatchTolerance =
    framework::Number("WavelengthMatchTolerance", 60,
                      "the largest wavelength difference (nanometres) that still matches")
        .Between(0, std::numeric_limits<double>::infinity());

}  // namespace pw::functions
