// How receivers, outputs, store and clock are doing.
import { byId, get, make, number, showLegend } from "./kit.js";
import { Chart, joined } from "./curve.js";

const noise = new Chart(byId("noise-chart"));
const DAY_S = 86400;

const cell = (text, kind = "n") => make("td", { className: kind }, text);
const well = (good, text) => make("span", { className: good ? "good" : "bad" }, text);

function length(s) {
    return s === undefined ? "–" : s < 7200 ? `${number(s / 60, 0)} min` : `${number(s / 3600, 1)} h`;
}

export function showParts({ receivers, outputs }) {
    byId("receiver-rows").replaceChildren(...receivers.map((one) => make("tr", {},
        cell(one.name, ""), make("td", {}, well(one.state === "running" || one.state === "off", one.state)),
        cell(number(one.level_db, 1)), cell(number(one.noise_db, 1)), cell(length(one.captured_s)),
        make("td", { className: "n" }, well(!(one.lost_s > 0), number(one.lost_s, 1))),
        make("td", { className: "n" }, well(!(one.clipped > 0), number(one.clipped, 0))),
        cell(number(one.clock_error_ppm, 1)), cell(one.decode_s === undefined ? "–" : `${number(one.decode_s / 0.6, 0)} %`))));
    byId("outputs").hidden = outputs.length === 0;
    const waiting = Object.fromEntries([...byId("output-rows").rows].map((row) => [row.dataset.name, row.dataset.waiting]));
    byId("output-rows").replaceChildren(...outputs.map((one) => {
        const left = one.waiting ?? waiting[one.name] ?? "–";
        const row = make("tr", {}, cell(one.name, ""), cell(one.type, ""), cell(String(left)),
            make("td", {}, well(one.problem === "", one.problem || "works")));
        Object.assign(row.dataset, { name: one.name, waiting: left });
        return row;
    }));
}

export function show(status) {
    showParts(status);
    const { clock, store, web } = status;
    byId("health-text").replaceChildren("Clock: ",
        well(clock.synchronized, clock.synchronized ? `kept to ${number(1000 * clock.error_s, 1)} ms` : "kept by nothing"),
        `. Store: ${store.spots} spots, ${number(store.bytes / 1e6, 1)} MB, `,
        well(store.problem === "", store.problem || "works"), `. Pages open: ${web.viewers}. Version ${status.version}.`);
}

export async function loadNoise(names) {
    const until = Math.ceil(Date.now() / 60000) * 60;
    const curves = await Promise.all(names.map((receiver) => get("/api/receivers", { receiver, from: until - DAY_S, until })));
    showLegend(byId("noise-legend"), names);
    noise.show(joined(curves.map(({ minutes }) => ({ points: minutes })), 2), [until - DAY_S, until]);
}
