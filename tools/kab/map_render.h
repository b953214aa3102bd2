#pragma once
// The forms of a picture. Each takes the model alone.

#include <string>

#include "map_model.h"

namespace tool {

/// Bars of Unicode blocks, `columns` wide (at least 40), then the tables.
std::string MapText(const MapModel& model, unsigned columns);
/// One image, light or dark as the viewer prefers.
std::string MapSvg(const MapModel& model);
/// One page with everything in it: the model, the style and the script that draws.
std::string MapHtml(const MapModel& model);

}  // namespace tool
