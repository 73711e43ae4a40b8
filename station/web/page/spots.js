// The table of spots: the newest first, filtered, page by page.
import { byId, clock, get, make, number } from "./kit.js";

const MOST_ROWS = 500;
const NEWS_MS = 5000; // between two announcements

let next = null;
let loaded = 0; // number of the latest spot that the table began with
let onBeacon = () => {};
let asked = 0;
let announcedAt = 0;

const filter = () => Object.fromEntries(new FormData(byId("filter")));

// The same rules as the server's.
function wanted(spot) {
    const { call, receiver, protocol } = filter();
    const pattern = call.toUpperCase().replace(/[.+^${}()|\\]/g, "\\$&").replace(/\*/g, ".*").replace(/\?/g, ".");
    try {
        if (call && !new RegExp(`^${pattern}$`).test(spot.call)) return false;
    } catch {
        return false; // half of a [ ]
    }
    return (!receiver || spot.receiver === receiver) && (!protocol || spot.protocol === protocol);
}

function row(spot) {
    const day = spot.utc_start.slice(0, 10);
    const time = make("time", { dateTime: spot.utc_start, title: spot.utc_start },
        day === new Date().toISOString().slice(0, 10) ? clock(spot.utc_start) : `${day.slice(5)} ${clock(spot.utc_start)}`);
    const beacon = make("button", { type: "button", title: "Show its curve" }, spot.call);
    beacon.addEventListener("click", () => onBeacon(spot.call));
    const cells = [make("td", {}, time), make("td", {}, beacon, spot.deep ? " (deep)" : ""),
        make("td", { className: "n" }, number(spot.rf_hz ?? spot.freq_hz, 1)),
        make("td", { className: "n" }, number(spot.snr_db, 1)),
        make("td", { className: "n" }, number(spot.drift_hz_s, 3)), make("td", {}, spot.protocol),
        make("td", {}, spot.locator), make("td", {}, spot.receiver ?? "")];
    return make("tr", {}, ...cells);
}

function showState() {
    byId("no-spots").hidden = byId("spot-rows").childElementCount > 0;
    byId("older").hidden = next === null;
}

export async function load() {
    const question = ++asked;
    const page = await get("/api/spots", filter());
    if (question !== asked) return page.spots;
    byId("spot-rows").replaceChildren(...page.spots.map(row));
    loaded = page.spots[0]?.number ?? 0;
    next = page.next;
    showState();
    return page.spots;
}

async function loadOlder() {
    const page = await get("/api/spots", { ...filter(), before: next });
    byId("spot-rows").append(...page.spots.map(row));
    next = page.next;
    showState();
}

export function add(spots) {
    const rows = byId("spot-rows");
    for (const spot of spots.filter((one) => one.number > loaded && wanted(one))) {
        const made = row(spot);
        made.className = "new";
        rows.prepend(made);
        if (rows.childElementCount > MOST_ROWS && next === null) rows.lastElementChild.remove();
    }
    showState();
    const last = spots.filter(wanted).at(-1);
    if (last && performance.now() - announcedAt > NEWS_MS) {
        announcedAt = performance.now();
        byId("news").textContent = `${last.call}, ${number(last.snr_db, 0)} dB, by ${last.receiver ?? "the receiver"}`;
    }
}

export function showReceivers(names) {
    const select = byId("filter").receiver;
    const chosen = select.value;
    select.replaceChildren(new Option("all", ""), ...names.map((name) => new Option(name, name)));
    select.value = names.includes(chosen) ? chosen : "";
}

export function begin(showBeacon) {
    onBeacon = showBeacon;
    byId("older").addEventListener("click", loadOlder);
    byId("filter").addEventListener("submit", (event) => event.preventDefault());
    byId("filter").addEventListener("input", () => load());
}
