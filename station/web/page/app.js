// The page: what was, from the server's files; what is, from its WebSocket; both again after each interruption.
import { byId, get, NeedsToken } from "./kit.js";
import * as curve from "./curve.js";
import * as health from "./health.js";
import * as map from "./map.js";
import * as side from "./side.js";
import * as spots from "./spots.js";
import * as waterfall from "./waterfall.js";

const FIRST_PAUSE_MS = 500, LONGEST_PAUSE_MS = 5000;
const STATUS_MS = 20000;

let pause = FIRST_PAUSE_MS;
let receivers = [];

function showLink(on, text) {
    byId("link").className = on ? "on" : "off";
    byId("link").textContent = text;
}

async function loadStatus() {
    const status = await get("/api/status");
    const name = `${status.callsign} · ${status.locator}`;
    byId("station").textContent = name;
    document.title = `${status.callsign}: beacons`;
    health.show(status);
    map.showStation(status);
    receivers = status.receivers.map((one) => one.name);
    return status;
}

async function loadAll() {
    await loadStatus();
    const { known } = await get("/api/receivers");
    spots.showReceivers([...new Set([...receivers, ...known])]);
    const [latest, calls, ...histories] = await Promise.all([spots.load(), map.load(),
        ...receivers.map((receiver) => get("/api/spectrum", { receiver }))]);
    waterfall.begin(histories, latest);
    curve.showBeacons(calls);
    await Promise.all([curve.load(), side.load(), health.loadNoise(receivers)]);
}

const takers = {
    spots: ({ spots: all }) => {
        spots.add(all);
        waterfall.addSpots(all);
        map.add(all);
        curve.add(all);
        side.add();
    },
    spectrum: (row) => waterfall.addRow(row),
    status: (status) => {
        health.showParts(status);
        const names = status.receivers.map((one) => one.name);
        if (names.join("\n") !== receivers.join("\n")) loadAll().catch(() => {});
    },
};

function again() {
    setTimeout(connect, pause);
    pause = Math.min(2 * pause, LONGEST_PAUSE_MS);
}

// First the live line, then what was: nothing is missed between them, and what comes twice is drawn once more.
function connect() {
    const socket = new WebSocket(`${location.protocol === "https:" ? "wss" : "ws"}://${location.host}/live`);
    let waiting = [];
    socket.addEventListener("message", ({ data }) => {
        const line = JSON.parse(data);
        if (waiting) waiting.push(line);
        else takers[line.type]?.(line);
    });
    socket.addEventListener("open", async () => {
        try {
            await loadAll();
            for (const line of waiting) takers[line.type]?.(line);
            waiting = null;
            pause = FIRST_PAUSE_MS;
            showLink(true, "live");
        } catch {
            socket.close();
        }
    });
    socket.addEventListener("close", () => {
        showLink(false, "no connection, trying again …");
        again();
    });
}

// Asks for the token until one is right.
function askForToken() {
    byId("login").hidden = false;
    byId("content").hidden = true;
    showLink(false, "a token is needed");
    byId("token").focus();
    byId("login").addEventListener("submit", async (event) => {
        event.preventDefault();
        const answer = await fetch("/api/login", { headers: { Authorization: `Bearer ${byId("token").value}` } });
        if (answer.ok) location.reload();
        else byId("login-problem").textContent = "That is not it.";
    });
}

async function begin() {
    spots.begin(curve.choose);
    curve.begin();
    map.begin().catch(() => {});
    try {
        await loadStatus();
    } catch (error) {
        if (error instanceof NeedsToken) return askForToken();
    }
    connect();
    setInterval(() => loadStatus().catch(() => {}), STATUS_MS);
}

begin();
