// What all parts of the page use. Texts become text nodes, never markup.

export const byId = (id) => document.getElementById(id);

// An element with properties and children, which are elements or texts.
export function make(name, properties = {}, ...children) {
    const element = Object.assign(document.createElement(name), properties);
    element.append(...children);
    return element;
}

const SVG = "http://www.w3.org/2000/svg";
export function makeSvg(name, attributes = {}, ...children) {
    const element = document.createElementNS(SVG, name);
    for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
    element.append(...children);
    return element;
}

export const number = (value, decimals) =>
    value === null || value === undefined ? "–" : value.toFixed(decimals).replace("-", "−");

export const clock = (utc) => utc.slice(11, 19);
export const seconds = (utc) => Date.parse(utc) / 1000;

// A colour of the style sheet, which differs between dark and light.
export const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
export const COLOURS = 6;

// Coloured names of curves.
export function showLegend(element, names) {
    element.replaceChildren(...names.map((name, k) => make("span", { className: `k${k % COLOURS}` }, name)));
}

export class NeedsToken extends Error {}

export async function get(path, parameters = {}) {
    const query = new URLSearchParams(
        Object.entries(parameters).filter(([, value]) => value !== "" && value !== undefined && value !== null));
    const answer = await fetch(`${path}${query.size > 0 ? `?${query}` : ""}`);
    if (answer.status === 401) throw new NeedsToken();
    if (!answer.ok) throw new Error(`${path}: ${answer.status}`);
    return answer.json();
}
