// shared/conf/QueltConfParser.cpp: the action rules.
#include "shared/conf/QueltConfParser.h"

#include <memory>
#include <stdexcept>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/array.hpp>
#include <boost/lexical_cast.hpp>

#include "platform/log/LogClass.h"

namespace QueltConf
{

namespace
{

// Score data: an optional sign, then decimal digits only, in range of int.
// The form is checked here; the conversion only adds the range check.
bool ToScore(const std::string& data, int& score)
{
    std::size_t digits = 0;
    if (!data.empty() && (data[0] == '+' || data[0] == '-'))
        digits = 1;
    if (digits == data.size())
        return false;
    for (std::size_t i = digits; i < data.size(); ++i) {
        if (data[i] < '0' || data[i] > '9')
            return false;
    }
    return boost::conversion::try_lexical_convert(data, score);
}

// The main actions, in the order in which they win.
const QueltAction::Action MainActionPrecedence[] = {QueltAction::Pass, QueltAction::Continue,
                                                    QueltAction::Reject, QueltAction::Tempfail,
                                                    QueltAction::Discard};

} // namespace

QueltAction::QueltAction(const std::string& name) : m_code(NoAction)
{
    std::string key(name);
    boost::algorithm::to_lower(key);
    boost::algorithm::trim_if(key, boost::algorithm::is_space());
    for (int32_t code = Pass; code <= Score; ++code) {
        if (key == GetName(static_cast<Action>(code))) {
            m_code = static_cast<Action>(code);
            break;
        }
    }
}

const std::string QueltAction::GetName(const Action& code)
{
    static const boost::array<std::string, 12> aa_to_name = {
        {"pass", "reject", "cure", "remove", "quarantine", "redirect", "discard", "notify",
         "tempfail", "continue", "add-header", "score"}};
    return aa_to_name[static_cast<std::size_t>(code)];
}

QueltActions::QueltActions(std::initializer_list<QueltAction> actions)
    : m_actions(actions.begin(), actions.end())
{
    UpdateNames();
}

bool QueltActions::Insert(const QueltAction& action)
{
    const bool added = m_actions.insert(action).second;
    UpdateNames();
    return added;
}

void QueltActions::Clear()
{
    m_actions.clear();
    UpdateNames();
}

bool QueltActions::Contains(const QueltAction& action) const
{
    return m_actions.count(action) != 0;
}

std::string QueltActions::Print() const
{
    return boost::algorithm::join(m_names, " | ");
}

void QueltActions::UpdateNames()
{
    std::vector<std::string> names;
    names.reserve(m_actions.size());
    for (const QueltAction& action : m_actions)
        names.push_back(QueltAction::GetName(action.GetCode()));
    m_names.swap(names);
}

ActionsParser::OlValue::OlValue(const std::string& name, const QueltActions& defValues,
                                const QueltActions& validActions, const QueltActions& addActions,
                                const std::string& description, int number, const char* kind)
    : m_name(name), m_def_values(defValues), m_values(defValues.GetNames()),
      m_valid_actions(validActions), m_add_actions(addActions), m_description(description),
      m_number(number), m_kind(kind), m_score(0)
{
}

ActionsParser::OlValue::OlValue(const OlValue& other, int number)
    : m_name(other.m_name), m_def_values(other.m_def_values), m_values(other.m_values),
      m_valid_actions(other.m_valid_actions), m_add_actions(other.m_add_actions),
      m_description(other.m_description), m_number(number), m_kind(other.m_kind), m_score(0)
{
}

ActionsParser::ActionsParser(std::vector<QueltActions>& vals, const std::vector<OlValue>& objects)
    : m_vals(vals), m_objects(objects)
{
}

bool ActionsParser::ParseValue(OlValue& object, std::size_t j, QueltAction& action, bool& hasData)
{
    const std::string& item = object.m_values[j];
    action = QueltAction(item);
    hasData = false;
    if (item.empty())
        return true;

    const std::string::size_type open = item.find('(');
    if (open == std::string::npos)
        return true;
    const std::string::size_type close = item.rfind(')');
    if (close == std::string::npos) {
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error, "Bad value '" + item + "' for param '" + object.m_name +
                                               "': couldn't find close bracket");
        return false;
    }
    if (open + 1 > close) {
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error, "Bad value '" + item + "' for param '" + object.m_name +
                                               "': discrepancy between the brackets");
        return false;
    }

    const std::string data = boost::algorithm::trim_copy_if(item.substr(open + 1, close - open - 1),
                                                            boost::algorithm::is_space());
    action = QueltAction(item.substr(0, open));

    switch (action.GetCode()) {
    case QueltAction::Redirect:
        object.m_redirect_address = data;
        if (Log.isDebugEnabled())
            Log.forcedLog(LogClass::Debug, "catch redirect address =" + data + " for param " +
                                               QueltAction::GetName(action.GetCode()));
        hasData = true;
        return true;
    case QueltAction::AddHeader: {
        // The value keeps its blanks after the colon; only the name is trimmed.
        const std::string::size_type colon = data.find(':');
        if (colon == std::string::npos) {
            object.m_header_name.clear();
            object.m_header_value = data;
        } else {
            object.m_header_name =
                boost::algorithm::trim_copy_if(data.substr(0, colon), boost::algorithm::is_space());
            object.m_header_value = data.substr(colon + 1);
        }
        if (Log.isDebugEnabled())
            Log.forcedLog(LogClass::Debug, "catch add header ='" + object.m_header_name + ": " +
                                               object.m_header_value + "' for param " +
                                               QueltAction::GetName(action.GetCode()));
        hasData = true;
        return true;
    }
    case QueltAction::Score: {
        int score = 0;
        if (!ToScore(data, score)) {
            if (Log.isErrorEnabled())
                Log.forcedLog(LogClass::Error, "Invalid score value: " + data);
            return false;
        }
        object.m_score = score;
        hasData = true;
        return true;
    }
    default:
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error,
                          "Unrecognize value '" + item + "' for param " + object.m_name);
        return false;
    }
}

bool ActionsParser::Parse()
{
    for (std::size_t i = 0; i < m_vals.size(); ++i) {
        OlValue& object = m_objects[i];
        QueltActions& actions = m_vals[i];
        actions.Clear();
        if (object.m_values.empty()) {
            if (Log.isErrorEnabled())
                Log.forcedLog(LogClass::Error, "Wrong empty value in " + object.m_name + " param");
            return false;
        }
        for (std::size_t j = 0; j < object.m_values.size(); ++j) {
            QueltAction action(QueltAction::NoAction);
            bool hasData = false;
            if (!ParseValue(object, j, action, hasData))
                return false;
            const std::string& item = object.m_values[j];
            // NoAction is never a member of a list, so Contains refuses it too.
            if (actions.Empty()) {
                if (!object.m_valid_actions.Contains(action)) {
                    if (Log.isErrorEnabled())
                        Log.forcedLog(LogClass::Error,
                                      "Find wrong value '" + item + "' for param '" +
                                          object.m_name +
                                          "' during action parse. Wait one of following:" +
                                          object.m_valid_actions.Print());
                    return false;
                }
            } else if (!object.m_add_actions.Contains(action)) {
                if (Log.isErrorEnabled())
                    Log.forcedLog(LogClass::Error, "Find wrong value '" + item + "' for param '" +
                                                       object.m_name + "' during action parse.");
                return false;
            }
            if (!hasData && (action.GetCode() == QueltAction::Score ||
                             action.GetCode() == QueltAction::AddHeader)) {
                if (Log.isErrorEnabled())
                    Log.forcedLog(LogClass::Error,
                                  "Can't find additional data in '()' for value '" + item +
                                      "' for param '" + object.m_name + "' during action parse.");
                return false;
            }
            actions.Insert(action);
        }
    }
    return true;
}

void ActionsParser::SetDefaults()
{
    for (std::size_t i = 0; i < m_vals.size(); ++i)
        m_vals[i] = m_objects[i].m_def_values;
}

bool ActionsParser::CheckActionObject(unsigned int pos, const QueltAction& action) const
{
    return m_vals.at(pos).Contains(action);
}

void QueltConfParser::SetObjects(const std::vector<ActionsParser::OlValue>& objects)
{
    // scoped_ptr has no maker of its own; the unique_ptr owns the new parser
    // until reset takes it over.
    std::unique_ptr<ActionsParser> parser = std::make_unique<ActionsParser>(m_actions, objects);
    m_actions.resize(objects.size());
    m_parser.reset(parser.release());
}

QueltAction::Action QueltConfParser::GetMainAction(unsigned int pos) const
{
    for (QueltAction::Action code : MainActionPrecedence) {
        if (m_parser->CheckActionObject(pos, code))
            return code;
    }
    throw std::invalid_argument("Could't find main action for object '" + std::to_string(pos) +
                                "'");
}

ActionsParser::OlValue MakeProcessingErrors()
{
    return ActionsParser::OlValue(
        "ProcessingErrors", {QueltAction::Reject},
        {QueltAction::Pass, QueltAction::Reject, QueltAction::Discard, QueltAction::Tempfail},
        {QueltAction::Quarantine, QueltAction::Redirect, QueltAction::Notify,
         QueltAction::AddHeader, QueltAction::Score},
        "processing error", 0, "error");
}

} // namespace QueltConf
