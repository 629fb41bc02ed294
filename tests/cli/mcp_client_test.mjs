// The client side of mcp_client_test.sh: the reference MCP client talking
// to `tarnbloom mcp` over stdio. Arguments: TOOL PHOTO OUT-FOLDER.
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import { existsSync, readdirSync } from "node:fs";
import { strict as assert } from "node:assert";

const [tool, photo, out] = process.argv.slice(2);
const transport = new StdioClientTransport({
  command: tool,
  args: ["mcp"],
  env: { ...process.env },
  stderr: "inherit",
});
const client = new Client({ name: "tarnbloom-test", version: "1.0.0" });
await client.connect(transport);
assert.equal(client.getServerVersion().name, "tarnbloom");

const { tools } = await client.listTools();
assert.deepEqual(tools.map((t) => t.name).sort(),
  ["cancel", "doctor", "enlarge", "recipe_list", "recipe_run", "status"]);

// Each call below also passes the client's own check of structuredContent
// against the tool's outputSchema.
const doctor = await client.callTool({ name: "doctor", arguments: {} });
assert.equal(doctor.isError, false, JSON.stringify(doctor));
assert.equal(doctor.structuredContent.state, "completed");

const recipes = await client.callTool({ name: "recipe_list", arguments: {} });
assert.equal(recipes.isError, false, JSON.stringify(recipes));
assert.deepEqual(recipes.structuredContent.recipes, []);

// Arguments the schema refuses are protocol errors; nothing is queued.
await assert.rejects(
  client.callTool({ name: "enlarge", arguments: { sources: [], size: { mode: "x2" } } }),
  (error) => error.code === -32602 && /sources needs at least 1 entry/.test(error.message));

const source = [{ path: photo, kind: "file" }];
const settings = { sources: source, size: { mode: "x2" }, method: "exact", format: "png", out };
const plan = await client.callTool({ name: "enlarge", arguments: { ...settings, dry_run: true } });
assert.equal(plan.isError, false, JSON.stringify(plan));
assert.equal(plan.structuredContent.plan.items.length, 1);
assert.deepEqual(readdirSync(out), [], "a dry run writes nothing");

const progress = [];
const result = await client.callTool({ name: "enlarge", arguments: settings }, undefined,
  { onprogress: (step) => progress.push(step), timeout: 600000 });
assert.equal(result.isError, false, JSON.stringify(result));
const done = result.structuredContent;
assert.equal(done.state, "completed");
assert.equal(done.items.length, 1);
assert.equal(done.items[0].width, plan.structuredContent.plan.items[0].width);
assert.equal(done.items[0].output, plan.structuredContent.plan.items[0].output);
assert.ok(existsSync(done.items[0].output), "the output exists");
assert.deepEqual(JSON.parse(result.content.at(-1).text), done);
assert.ok(progress.length >= 1, "progress was reported");
assert.deepEqual(progress.at(-1), { progress: 1, total: 1, message: "1 of 1 photo" });

// The instance's refusal is the tool's own error, with its message first.
const missing = await client.callTool({ name: "enlarge",
  arguments: { ...settings, sources: [{ path: `${out}/nothing.jpg`, kind: "file" }] } });
assert.equal(missing.isError, true);
assert.match(missing.content[0].text, /nothing\.jpg does not exist\./);
assert.equal(missing.structuredContent.state, "rejected");

const status = await client.callTool({ name: "status", arguments: { job: done.job } });
assert.equal(status.isError, false, JSON.stringify(status));
assert.equal(status.structuredContent.job, done.job);
assert.equal(status.structuredContent.state, "completed");

await client.close();
console.log("mcp client: all checks passed");
