#include "agent/agent_job_link.h"

#include "agent/agent_json.h"

namespace tarnbloom::agent {

using detail::DocumentKind;
using detail::ObjectReader;
using detail::OrderedJson;

std::string AgentJobLink::encode() const {
  OrderedJson entries = OrderedJson::array();
  for (const Entry& entry : items) {
    OrderedJson object;
    object["source"] = entry.source;
    object["plannedOutput"] = entry.plannedOutput;
    object["overwrite"] = entry.overwrite;
    object["queueItem"] = entry.queueItem ? OrderedJson(*entry.queueItem) : OrderedJson(nullptr);
    entries.push_back(std::move(object));
  }
  OrderedJson document;
  document["queueJobs"] = queueJobs;
  document["items"] = std::move(entries);
  document["cancelRequested"] = cancelRequested;
  return detail::dumpDocument(document, true);
}

AgentJobLink AgentJobLink::decode(std::span<const std::byte> bytes) {
  // Our own file, but read as strictly as a result: a damaged link must
  // not make up queue items.
  const detail::Json tree = detail::parseDocument(bytes, DocumentKind::result);
  const ObjectReader fields(tree, "", DocumentKind::result);
  AgentJobLink link;
  for (const auto& id : fields.array("queueJobs")) {
    if (!id.is_string()) fields.fail("queueJobs holds something other than text.");
    link.queueJobs.push_back(id.get<std::string>());
  }
  const auto& entries = fields.array("items");
  for (size_t i = 0; i < entries.size(); ++i) {
    const ObjectReader entry = fields.element("items", entries[i], i);
    link.items.push_back(Entry{entry.string("source"), entry.string("plannedOutput"),
                               entry.boolean("overwrite"), entry.optionalString("queueItem")});
  }
  link.cancelRequested = fields.boolean("cancelRequested");
  return link;
}

}  // namespace tarnbloom::agent
