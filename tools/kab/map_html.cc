// A picture as one page: the model goes in as data, map_page/ draws it.

#include "map_page.h"
#include "map_render.h"

namespace tool {
namespace {

// The data stands in a script element, which would end at "</script" within a text.
std::string ScriptSafe(const std::string& json) {
  std::string safe;
  for (const char c : json) {
    if (c == '<') {
      safe += "\\u003c";
    } else {
      safe += c;
    }
  }
  return safe;
}

}  // namespace

std::string MapHtml(const MapModel& model) {
  std::string page(kMapPage);
  const auto put = [&page](std::string_view mark, const std::string& text) {
    page.replace(page.find(mark), mark.size(), text);
  };
  put("/*palette*/", std::string(kMapPalette));
  put("/*style*/", std::string(kMapStyle));
  put("/*script*/", std::string(kMapScript));
  // Last: no mark is sought in the texts of disks.
  put("/*model*/", ScriptSafe(MapJson(model).dump(-1, ' ', false, Json::error_handler_t::replace)));
  return page;
}

}  // namespace tool
