// The --error-action value through the action parser, set up as the filter
// sets it up: which values it accepts and the main action it then picks, the
// exact fault and note lines it logs for the others. The fuzz target
// action_parser covers crash-freedom and "an accepted list has a main action".
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/log/VxNDC.h"
#include "shared/conf/QueltConfParser.h"

namespace
{

using namespace QueltConf;

TEST(ErrorAction, ValuesAcceptedAndRefusedWithTheirLogLines)
{
    const std::string laterTail = "' for param 'ProcessingErrors' during action parse.\n";
    const auto wrong = [](const std::string& item) {
        return "ERROR conf - Find wrong value '" + item +
               "' for param 'ProcessingErrors' during action parse. Wait one of "
               "following:pass | reject | discard | tempfail\n";
    };
    const std::string bad = "ERROR conf - Bad value '";
    const std::string of = "' for param 'ProcessingErrors': ";
    const std::string score = "ERROR conf - Invalid score value: ";
    const std::string header = "DEBUG conf - catch add header =";
    const struct {
        std::vector<std::string> items;
        std::string main; // the main action picked; empty: refused
        std::string log;
    } rows[] = {
        // clang-format off
        {{" Pass\t"}, "pass", ""},
        {{"\r\v\f TempFail \n"}, "tempfail", ""},
        {{"continue"}, "", wrong("continue")},
        {{""}, "", wrong("")},
        {{"redirect(x)"}, "",
         "DEBUG conf - catch redirect address =x for param redirect\n" + wrong("redirect(x)")},
        {{"add-header( X-A : b:c)"}, "",
         header + "'X-A:  b:c' for param add-header\n" + wrong("add-header( X-A : b:c)")},
        {{"Add-Header( plain )"}, "",
         header + "': plain' for param add-header\n" + wrong("Add-Header( plain )")},
        {{"score( -5 ) trailing"}, "", wrong("score( -5 ) trailing")},
        {{"score()"}, "", score + "\n"},
        {{"score(1 2)"}, "", score + "1 2\n"},
        {{"score(2147483648)"}, "", score + "2147483648\n"},
        {{"notify("}, "", bad + "notify(" + of + "couldn't find close bracket\n"},
        {{"score)1("}, "", bad + "score)1(" + of + "discrepancy between the brackets\n"},
        {{"reject(x)"}, "",
         "ERROR conf - Unrecognize value 'reject(x)' for param ProcessingErrors\n"},
        // Lists no command line gives: later items come from the additional
        // actions, score and add-header with data.
        {{"reject", "redirect", "score"}, "",
         "ERROR conf - Can't find additional data in '()' for value 'score" + laterTail},
        {{"reject", "score(1)", "pass"}, "", "ERROR conf - Find wrong value 'pass" + laterTail},
        {{}, "", "ERROR conf - Wrong empty value in ProcessingErrors param\n"},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.items.empty() ? "no items" : row.items[0]);
        QueltConfParser holder;
        holder.SetObjects({ActionsParser::OlValue(MakeProcessingErrors(), 0)});
        holder.GetParser().SetDefaults();
        holder.GetParser().GetObjects()[0].m_values = row.items;
        // A context of our own keeps the captured lines independent of how
        // the log back end shows an empty one.
        VxNDC context("conf");
        LogCapture capture;
        const bool accepted = holder.GetParser().Parse();
        EXPECT_EQ(accepted, !row.main.empty());
        if (accepted) {
            EXPECT_EQ(QueltAction::GetName(holder.GetMainAction(0)), row.main);
        }
        EXPECT_EQ(capture.Text(), row.log);
    }
    // A list without a main action (here: no defaults set) has no answer.
    QueltConfParser holder;
    holder.SetObjects({ActionsParser::OlValue(MakeProcessingErrors(), 0)});
    EXPECT_THROW(holder.GetMainAction(0), std::invalid_argument);
}

} // namespace
