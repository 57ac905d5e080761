// nvdbconv policy: shows the conversion policy and the users it holds, and sets it.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "policy.h"
#include "result_codes.h"

namespace nvdbconv {

int Policy(const Options& o, Printer& out)
{
    Header(out, "policy");
    HRESULT hr = S_OK;
    if (o.strict) {
        hr = WriteStrictConversion(*o.strict);
        out.Row("set", std::string(*o.strict ? "strict on: " : "strict off: ") + DescribeResult(hr));
        out.json["write"] = ResultJson(hr);
        if (FAILED(hr))
            out.Problem("writing HKLM\\SOFTWARE\\Norvane\\Policies\\Default failed: " + DescribeResult(hr));
    }
    ShowPolicy(out, ReadPolicyState(), ReadHeldUsers(), false);
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

} // namespace nvdbconv
