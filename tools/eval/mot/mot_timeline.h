// mot_timeline.h - a picture of one clip: per object of the truth a row that shows when it was there
// and under which id it was found.
// Read mot_clear.h for the runs that it draws.
#ifndef TOOLS_EVAL_MOT_MOT_TIMELINE_H
#define TOOLS_EVAL_MOT_MOT_TIMELINE_H

#include <string>
#include <vector>

#include "tools/eval/mot/mot_clear.h"

namespace olvex_tools {

// An SVG document. Ids are written where there is room; every bar's tooltip has id and frames.
std::string timeline_svg(const std::string& title, const MotClip& clip,
                         const std::vector<std::vector<FoundRun>>& runs);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_TIMELINE_H
