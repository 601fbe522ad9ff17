// SPDX-License-Identifier: Apache-2.0
// nelvoctl mcp, driven by the official clients of each era of the protocol and by the Inspector.
// The programs come from the environment: NELVOCTL, PLAYER, HELLO.
import assert from "node:assert/strict";
import { execFile, spawn } from "node:child_process";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, describe, test } from "node:test";
import { promisify } from "node:util";

import * as modern from "@modelcontextprotocol/client";
import { StdioClientTransport as ModernTransport } from "@modelcontextprotocol/client/stdio";
import { Client as LegacyClient } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport as LegacyTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import {
    ResourceUpdatedNotificationSchema,
    ToolListChangedNotificationSchema,
} from "@modelcontextprotocol/sdk/types.js";

const { NELVOCTL, PLAYER, HELLO } = process.env;
const INFO = { name: "interop", version: "1.0.0" };
const STATE = "nelvo://demo.player/state";
const run = promisify(execFile);

const directory = mkdtempSync(join(tmpdir(), "nelvo-interop-"));
const env = { ...process.env, NELVO_HOST_RUNTIME_DIR: directory };
const applications = new Map();

async function start(program, appId) {
    applications.set(appId, spawn(program, { env, stdio: "ignore" }));
    await run(NELVOCTL, ["state", appId, "--wait", "20"], { env }).catch(() => {}); // hello has none
}

async function kill(appId) {
    const child = applications.get(appId);
    const ended = new Promise((resolve) => child.once("exit", resolve));
    child.kill("SIGKILL");
    await ended;
}

before(() => Promise.all([start(PLAYER, "demo.player"), start(HELLO, "demo.hello")]));
after(() => {
    for (const child of applications.values()) child.kill("SIGKILL");
    rmSync(directory, { recursive: true });
});

// A promise, with the function that fulfils it.
function event() {
    let happened;
    const promise = new Promise((resolve) => (happened = resolve));
    return { promise, happened };
}

const COMMAND = { command: NELVOCTL, env, stderr: "ignore" };

function legacy(version) {
    return {
        name: `sdk 1.x, ${version}`,
        version,
        async connect(args, changed = () => {}) {
            const client = new LegacyClient(INFO);
            const transport = new LegacyTransport({ ...COMMAND, args: ["mcp", ...args] });
            const send = transport.send.bind(transport);
            let agreed;
            transport.setProtocolVersion = (answered) => (agreed = answered);
            transport.send = (message) => {
                if (message.method === "initialize") message.params.protocolVersion = version;
                return send(message);
            };
            client.setNotificationHandler(ToolListChangedNotificationSchema, changed);
            await client.connect(transport);
            assert.equal(client.getServerVersion().name, "nelvoctl");
            assert.equal(agreed, version);
            return client;
        },
        call: (client, params, options) => client.callTool(params, undefined, options),
        async watch(client, uri, updated) {
            client.setNotificationHandler(ResourceUpdatedNotificationSchema, updated);
            await client.subscribeResource({ uri });
            return () => client.unsubscribeResource({ uri });
        },
        absent: -32002,
    };
}

const current = {
    name: "client 2.x, 2026-07-28",
    version: "2026-07-28",
    async connect(args, changed = () => {}) {
        const client = new modern.Client(INFO, {
            versionNegotiation: { mode: { pin: "2026-07-28" } },
        });
        client.setNotificationHandler("notifications/tools/list_changed", changed);
        await client.connect(new ModernTransport({ ...COMMAND, args: ["mcp", ...args] }));
        assert.equal(client.getNegotiatedProtocolVersion(), "2026-07-28");
        await client.listen({ toolsListChanged: true });
        return client;
    },
    call: (client, params, options) => client.callTool(params, options),
    async watch(client, uri, updated) {
        client.setNotificationHandler("notifications/resources/updated", updated);
        const subscription = await client.listen({ resourceSubscriptions: [uri] });
        return () => subscription.close();
    },
    absent: -32602,
};

const clients = [
    ...["2024-11-05", "2025-03-26", "2025-06-18", "2025-11-25"].map(legacy),
    current,
];

for (const kind of clients) {
    describe(kind.name, () => {
        let client;
        const one = (args, options) => kind.call(client, args, options);
        before(async () => (client = await kind.connect(["demo.player", "--interval", "0.05"])));
        after(() => client.close());

        test("lists tools, resources and templates", async () => {
            const { tools } = await client.listTools();
            const names = tools.map((tool) => tool.name);
            assert.deepEqual(names.slice(0, 3), ["call_action", "get_state", "play"]);
            const { resources } = await client.listResources();
            assert.equal(resources[0].uri, STATE);
            const { resourceTemplates } = await client.listResourceTemplates();
            assert.equal(resourceTemplates[0].uriTemplate, "nelvo://{appId}/state");
            const { completion } = await client.complete({
                ref: { type: "ref/resource", uri: "nelvo://{appId}/state" },
                argument: { name: "appId", value: "demo.p" },
            });
            assert.deepEqual(completion.values, ["demo.player"]);
        });

        test("calls, and tells what is wrong with a call", async () => {
            const good = await one({ name: "set_volume", arguments: { volume: 30 } });
            assert.deepEqual(good.content, [{ type: "text", text: "volume 30" }]);
            const state = await one({ name: "get_state", arguments: {} });
            assert.equal(state.structuredContent.volume, 30);
            const bad = await one({ name: "set_volume", arguments: { volume: "loud" } });
            assert.ok(bad.isError);
            assert.match(bad.content[0].text, /\/volume: /);
            const near = await one({ name: "call_action", arguments: { action: "sek" } });
            assert.match(near.content[0].text, /no-callback: .*did you mean "seek"/);
            await assert.rejects(one({ name: "absent" }), { code: -32602 });
        });

        test("serves twenty calls at once, in order", async () => {
            const volumes = Array.from({ length: 20 }, (_, i) => i);
            const answers = await Promise.all(
                volumes.map((volume) => one({ name: "set_volume", arguments: { volume } })),
            );
            const texts = answers.map((answer) => answer.content[0].text);
            assert.deepEqual(texts, volumes.map((volume) => `volume ${volume}`));
        });

        test("goes on after a call that is cancelled", async () => {
            const abort = new AbortController();
            const hung = one({ name: "record" }, { signal: abort.signal });
            const next = one({ name: "pause" });
            abort.abort();
            await assert.rejects(hung);
            assert.equal((await next).content[0].text, "paused");
        });

        test("reads a state and tells of its changes", async () => {
            const { contents } = await client.readResource({ uri: STATE });
            assert.equal(contents[0].mimeType, "application/json");
            const seen = event();
            const stop = await kind.watch(client, STATE, seen.happened);
            let volume = 0; // until one of the changes comes after the first look
            const changing = setInterval(
                () => one({ name: "set_volume", arguments: { volume: ++volume % 100 } }),
                50,
            );
            assert.equal((await seen.promise).params.uri, STATE);
            clearInterval(changing);
            await stop();
            await assert.rejects(client.readResource({ uri: "nelvo://demo.absent/state" }), {
                code: kind.absent,
            });
        });
    });
}

for (const kind of [clients[3], current]) {
    test(`${kind.name}: an application that is killed in a call, and comes back`, async () => {
        const changes = [event(), event()];
        let count = 0;
        const client = await kind.connect(["demo.player", "demo.hello"], () =>
            changes[count++]?.happened(),
        );
        const hung = kind.call(client, { name: "demo_player__record" });
        await kind.call(client, { name: "demo_hello__greet", arguments: { actionParams: "Ann" } });
        await kill("demo.player");
        assert.match((await hung).content[0].text, /^connection-lost: /);
        await changes[0].promise;
        const gone = (await client.listTools()).tools.map((tool) => tool.name);
        assert.ok(!gone.includes("demo_player__play"));
        await start(PLAYER, "demo.player");
        await changes[1].promise;
        const played = await kind.call(client, { name: "demo_player__play" });
        assert.equal(played.content[0].text, "playing");
        await client.close();
    });
}

test("the 2.x client finds out by itself that the server is modern", async () => {
    const client = new modern.Client(INFO, { versionNegotiation: { mode: "auto" } });
    await client.connect(new ModernTransport({ ...COMMAND, args: ["mcp"] }));
    assert.equal(client.getNegotiatedProtocolVersion(), "2026-07-28");
    await client.close();
});

test("the Inspector's command line", async () => {
    const cwd = join(import.meta.dirname, "node_modules/@modelcontextprotocol/inspector-cli/build");
    const inspect = async (...args) => {
        const command = ["cli.js", "--cli", NELVOCTL, "mcp", ...args];
        return JSON.parse((await run("node", command, { env, cwd })).stdout);
    };
    const { tools } = await inspect("demo.player", "--method", "tools/list");
    assert.equal(tools.length, 9);
    const answer = await inspect(
        "demo.player", "--method", "tools/call", "--tool-name", "set_volume",
        "--tool-arg", "volume=40",
    );
    assert.equal(answer.content[0].text, "volume 40");
});
