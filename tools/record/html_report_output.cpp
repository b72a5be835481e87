#include "html_report_output.h"

#include "html_report.h"

namespace talvex {

bool HtmlReportOutput::write(const Recording& recording) { return file_.writeAndClose(htmlReport(recording)); }

}  // namespace talvex
