// The action-string parser over real categories: which item lists it accepts,
// the exact fault and note lines it logs, the data it keeps, and which main
// action the holder picks.
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/log/VxNDC.h"
#include "shared/conf/QueltConfParser.h"

namespace
{

using QueltConf::ActionsParser;
using QueltConf::QueltAction;
using QueltConf::QueltActions;
using QueltConf::QueltConfParser;

std::string DataOf(const ActionsParser::OlValue& category)
{
    return "redirect='" + category.m_redirect_address + "' header='" + category.m_header_name +
           "'/'" + category.m_header_value + "' score=" + std::to_string(category.m_score);
}

const std::string NoData = "redirect='' header=''/'' score=0";

template <class... Text> std::vector<std::string> Items(Text... items)
{
    return {items...};
}

// Items as the value of a fresh ProcessingErrors instance (one item is what
// --error-action gives): whether Parse accepts them, then object 0's list,
// every captured line, the category's data.
struct ParseResult {
    bool accepted;
    std::string list;
    std::string log;
    std::string data;
};

ParseResult ParseProcessingErrors(const std::vector<std::string>& items)
{
    QueltConfParser holder;
    holder.SetObjects({ActionsParser::OlValue(QueltConf::MakeProcessingErrors(), 0)});
    holder.GetParser().SetDefaults();
    ActionsParser::OlValue& category = holder.GetParser().GetObjects()[0];
    category.m_values = items;
    // A context of our own keeps the captured lines independent of how the
    // log back end shows an empty one.
    VxNDC context("conf");
    LogCapture capture;
    const bool accepted = holder.GetParser().Parse();
    QueltActions list;
    for (int32_t code = 0; code < 12; ++code)
        if (holder.GetParser().CheckActionObject(0, static_cast<QueltAction::Action>(code)))
            list.Insert(static_cast<QueltAction::Action>(code));
    return {accepted, list.Print(), capture.Text(), DataOf(category)};
}

// The first item from the valid actions, the rest from the additional ones,
// with data in parentheses.
TEST(ActionsParser, ItemListsAcceptedAndRefused)
{
    const std::string waitTail = "' for param 'ProcessingErrors' during action parse. Wait one of "
                                 "following:pass | reject | discard | tempfail\n";
    const std::string additionalTail = "' for param 'ProcessingErrors' during action parse.\n";
    const std::string badValue = "ERROR conf - Bad value '";
    const struct {
        const char* name;
        std::vector<std::string> items;
        bool accepted;
        std::string list, log, data;
    } rows[] = {
        {"error action in any case", Items("TempFail"), true, "tempfail", "", NoData},
        {"additional action first", Items("quarantine"), false, "",
         "ERROR conf - Find wrong value 'quarantine" + waitTail, NoData},
        {"additional with data first", Items("redirect(x)"), false, "",
         "DEBUG conf - catch redirect address =x for param redirect\n"
         "ERROR conf - Find wrong value 'redirect(x)" +
             waitTail,
         "redirect='x' header=''/'' score=0"},
        {"missing close bracket", Items("notify("), false, "",
         badValue + "notify(' for param 'ProcessingErrors': couldn't find close bracket\n", NoData},
        {"brackets reversed", Items("score)1("), false, "",
         badValue + "score)1(' for param 'ProcessingErrors': discrepancy between the brackets\n",
         NoData},
        {"valid action with data", Items("reject(x)"), false, "",
         "ERROR conf - Unrecognize value 'reject(x)' for param ProcessingErrors\n", NoData},
        {"empty item", Items(""), false, "", "ERROR conf - Find wrong value '" + waitTail, NoData},
        {"header name trimmed, value and later colons kept",
         Items("reject", "quarantine", "redirect", "add-header( X-A : b:c)"), true,
         "reject | quarantine | redirect | add-header",
         "DEBUG conf - catch add header ='X-A:  b:c' for param add-header\n",
         "redirect='' header='X-A'/' b:c' score=0"},
        {"header without colon", Items("reject", "add-header( plain text )"), true,
         "reject | add-header",
         "DEBUG conf - catch add header =': plain text' for param add-header\n",
         "redirect='' header=''/'plain text' score=0"},
        {"redirect with data, any case", Items("tempfail", "Redirect( a@b.example )"), true,
         "redirect | tempfail",
         "DEBUG conf - catch redirect address =a@b.example for param redirect\n",
         "redirect='a@b.example' header=''/'' score=0"},
        {"later data overwrites, repeat added once",
         Items("reject", "redirect(one)", "redirect(two)"), true, "reject | redirect",
         "DEBUG conf - catch redirect address =one for param redirect\n"
         "DEBUG conf - catch redirect address =two for param redirect\n",
         "redirect='two' header=''/'' score=0"},
        {"score with blanks, sign and text after the bracket",
         Items("reject", "score( -5 ) trailing"), true, "reject | score", "",
         "redirect='' header=''/'' score=-5"},
        {"score without data", Items("reject", "score"), false, "reject",
         "ERROR conf - Can't find additional data in '()' for value 'score" + additionalTail,
         NoData},
        {"score empty", Items("reject", "score()"), false, "reject",
         "ERROR conf - Invalid score value: \n", NoData},
        {"score not a number", Items("reject", "score(1 2)"), false, "reject",
         "ERROR conf - Invalid score value: 1 2\n", NoData},
        {"score overflow", Items("reject", "score(2147483648)"), false, "reject",
         "ERROR conf - Invalid score value: 2147483648\n", NoData},
        {"main action second", Items("reject", "pass"), false, "reject",
         "ERROR conf - Find wrong value 'pass" + additionalTail, NoData},
        {"stops at first fault", Items("reject", "score(1)", "pass", "redirect(x)"), false,
         "reject | score", "ERROR conf - Find wrong value 'pass" + additionalTail,
         "redirect='' header=''/'' score=1"},
        {"no items", Items(), false, "",
         "ERROR conf - Wrong empty value in ProcessingErrors param\n", NoData},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const ParseResult result = ParseProcessingErrors(row.items);
        EXPECT_EQ(result.accepted, row.accepted);
        EXPECT_EQ(result.list, row.list);
        EXPECT_EQ(result.log, row.log);
        EXPECT_EQ(result.data, row.data);
    }
}

// A category whose items may name any action, to build arbitrary lists.
ActionsParser::OlValue AnyActions(const std::vector<std::string>& items)
{
    QueltActions all;
    for (int32_t code = 0; code < 12; ++code)
        all.Insert(static_cast<QueltAction::Action>(code));
    ActionsParser::OlValue category("Any", {QueltAction::Notify}, all, all, "", 0, nullptr);
    category.m_values = items;
    return category;
}

TEST(MainAction, PrecedencePassContinueRejectTempfailDiscard)
{
    const struct {
        std::vector<std::string> items;
        QueltAction::Action expected;
    } rows[] = {
        {{"reject", "pass"}, QueltAction::Pass},
        {{"reject", "continue", "discard"}, QueltAction::Continue},
        {{"discard", "tempfail", "reject"}, QueltAction::Reject},
        {{"discard", "tempfail"}, QueltAction::Tempfail},
        {{"notify", "discard", "quarantine"}, QueltAction::Discard},
    };
    for (const auto& row : rows) {
        QueltConfParser holder;
        holder.SetObjects({AnyActions(row.items)});
        ASSERT_TRUE(holder.GetParser().Parse());
        EXPECT_EQ(holder.GetMainAction(0), row.expected) << row.items[0];
    }
}

TEST(MainAction, ListWithoutOneThrowsNamingTheObject)
{
    QueltConfParser holder;
    holder.SetObjects({AnyActions({"reject"}), AnyActions({"quarantine", "cure"})});
    ASSERT_TRUE(holder.GetParser().Parse());
    EXPECT_EQ(holder.GetMainAction(0), QueltAction::Reject);
    try {
        holder.GetMainAction(1);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "Could't find main action for object '1'");
    }
}

} // namespace
