'use strict';
// ---- What is known, as events tell it ----------------------------------------------------------

// The token stays with this tab, so that the page can be loaded anew, and goes from the address,
// which others see: over somebody's shoulder, in pictures, in the list of what has been visited.
let token = new URLSearchParams(location.search).get('token') || sessionStorage.token || '';
sessionStorage.token = token;
history.replaceState(null, '', location.pathname + location.hash);

const objects = new Map();    // by id
const values = new Map();     // by id: a map of attributes
const processes = new Map();  // by name
const views = new Map();      // "traffic", "waits"
let calls = [];
let mayChange = false;
let chosen = null;  // id of the object that is shown
const closed = new Set();  // ids of objects whose children are not shown

const get = id => document.getElementById(id);
const text = value => typeof value === 'string' ? value : JSON.stringify(value);

/** make('p', {class: 'hint'}, 'text', child) */
function make(name, attributes = {}, ...children) {
    const svg = ['g', 'path', 'circle', 'text', 'title', 'defs', 'marker'].includes(name);
    const made = svg ? document.createElementNS('http://www.w3.org/2000/svg', name)
                     : document.createElement(name);
    for (const [key, value] of Object.entries(attributes)) {
        if (key.startsWith('on'))
            made.addEventListener(key.slice(2), value);
        else if (value !== false && value !== undefined)
            made.setAttribute(key, value === true ? '' : value);
    }
    made.append(...children);
    return made;
}

/** Reads JSON. Whole numbers that a number of this language has not all digits of become texts: what
 * is shown, and written back, has them all. */
function parse(json) {
    const numbersOrTexts = /"(?:[^"\\]|\\.)*"|-?\d+(?:\.\d+)?(?:[eE][+-]?\d+)?/g;
    const isInexact = found => /^-?\d{16,}$/.test(found) && !Number.isSafeInteger(Number(found));
    return JSON.parse(/\d{16}/.test(json)
        ? json.replace(numbersOrTexts, found => isInexact(found) ? '"' + found + '"' : found) : json);
}

async function ask(path, body) {
    const answer = await fetch(path, {
        method: body ? 'POST' : 'GET',
        headers: {Authorization: 'Bearer ' + token,
                  ...(body ? {'Content-Type': 'application/json'} : {})},
        body: body && JSON.stringify(body)});
    if (answer.status === 403 && !body)
        showDoor();
    const told = parse(await answer.text());
    const one = (told.values || told.calls || [])[0];
    const error = told.error || (one && one.error);
    if (error)
        throw new Error(error.text);
    return told;
}

// ---- The stream --------------------------------------------------------------------------------

let stream = null;  // ends the present one
let wish = {};

function listen(changes) {
    Object.assign(wish, changes);
    if (stream)
        stream.abort();
    stream = new AbortController();
    const query = new URLSearchParams({values: '**'});
    if (wish.processes)
        query.set('processes', '1');
    if (wish.calls)
        query.set('calls', wish.calls);
    follow('api/events?' + query, stream.signal);
}

/** Listens until it is told to end, and comes back with the number of the last event when the
 * connection is lost. An EventSource could not send the token but in the address. */
async function follow(path, signal) {
    let last = '';
    let isLost = false;
    while (!signal.aborted) {
        try {
            const answer = await fetch(path, {signal, cache: 'no-store', headers: {
                Authorization: 'Bearer ' + token, ...(last ? {'Last-Event-ID': last} : {})}});
            if (answer.status === 403)
                return showDoor();
            if (!answer.ok)
                throw new Error((await answer.json()).error.text);
            if (isLost)
                await learnRights();
            isLost = false;
            say('live');
            for await (const event of eventsOf(answer.body)) {
                take(parse(event.data));
                last = event.id;
            }
            throw new TypeError();
        } catch (why) {
            isLost = true;
            if (!signal.aborted)
                say(why instanceof TypeError ? 'connection lost' : why.message, 'bad');
        }
        await new Promise(done => setTimeout(done, 1000));
    }
}

async function* eventsOf(body) {
    const silence = 30000;  // the gateway gives a sign of life after ten seconds
    const reader = body.pipeThrough(new TextDecoderStream()).getReader();
    for (let text = ''; ;) {
        const timer = setTimeout(() => reader.cancel(), silence);
        const {value, done} = await reader.read();
        clearTimeout(timer);
        if (done)
            return;
        text += value;
        // An event has lines, of which none is empty; there is no line end in JSON.
        const events = value.includes('\n') ? text.split('\n\n') : [text];
        text = events.pop();
        for (const event of events) {
            const found = /^id: (\d+)\ndata: (.*)$/.exec(event);
            if (found)
                yield {id: found[1], data: found[2]};
        }
    }
}

/** Asks for the token, which this tab has not, or which another start of the gateway had. */
function showDoor() {
    if (stream)
        stream.abort();
    get('door').classList.add('shown');
    say('no access', 'bad');
}

get('door').addEventListener('submit', event => {
    event.preventDefault();
    // Who pastes the whole address means the token in it.
    token = get('token').value.trim().replace(/^.*[?&]token=([^&#]*).*$/, '$1');
    sessionStorage.token = token;
    get('token').value = '';
    start();
});

function say(what, how = '') {
    get('state').textContent = what + (what === 'live' ? mayChange ? '' : ', read-only' : '');
    get('state').className = how;
}

/** Takes what is new; see docs/web-api.md. */
function take(news) {
    if (news.afresh)
        for (const known of [objects, values, processes, views])
            known.clear();
    if (news.afresh && wish.calls)
        calls = [];
    for (const object of news.objects || [])
        objects.set(object.id, object);
    for (const [id, name, value] of news.values || []) {
        if (!values.has(id))
            values.set(id, new Map());
        values.get(id).set(name, value);
        changedValues.add(id);
        plot.add(id, name, value);
    }
    for (const process of news.processes || [])
        processes.set(process.process, process);
    for (const view of news.views || [])
        views.set(view.view, view);
    const gone = news.gone || {};
    for (const id of gone.objects || []) {
        objects.delete(id);
        values.delete(id);
    }
    for (const name of gone.processes || [])
        processes.delete(name);
    if (news.missed)
        calls.unshift({event: 'lost', time: Date.now() * 1000});
    for (const call of news.calls || [])
        calls.unshift(call);
    calls = calls.slice(0, 500);
    stale.tree = stale.tree || news.afresh || news.objects || gone.objects;
    stale.calls = stale.calls || news.calls || news.missed;
    stale.processes = stale.processes || news.processes || news.views || gone.processes;
    soon();
}

// Painted once for each picture of the screen, whatever comes in between.
const stale = {};
const changedValues = new Set();
let isDue = false;

function soon() {
    if (!isDue)
        requestAnimationFrame(paint);
    isDue = true;
}

function paint() {
    isDue = false;
    const now = Object.assign({}, stale);
    for (const key of Object.keys(stale))
        stale[key] = false;
    if (now.tree) {
        paintTree();
        paintUnwatched();
        checkChosen();
    }
    for (const id of changedValues)
        paintValues(id);
    changedValues.clear();
    if (now.calls)
        paintCalls();
    if (now.processes)
        paintProcesses();
    plot.paint();
}

// ---- The tree ----------------------------------------------------------------------------------

const rows = new Map();  // elements, by ids
let order = [];          // ids, as they are shown

const inOrder = new Intl.Collator('en', {numeric: true}).compare;  // cpu2, then cpu10

function shownIds() {
    const children = new Map();
    const roots = [];
    for (const object of objects.values()) {
        const list = objects.has(object.parent)
            ? children.get(object.parent) || children.set(object.parent, []).get(object.parent)
            : roots;
        list.push(object);
    }
    const wanted = get('find').value.toLowerCase();
    const shown = [];
    const visit = (list, depth) => {
        list.sort((a, b) => inOrder(a.name, b.name));
        for (const object of list) {
            const below = children.get(object.id) || [];
            if (!wanted || (object.name + ' ' + object.class).toLowerCase().includes(wanted))
                shown.push([object, depth, below.length]);
            if ((wanted || !closed.has(object.id)) && depth < 100)
                visit(below, depth + 1);
        }
    };
    visit(roots, 0);
    return shown;
}

/** How many objects have each name. */
function namesakeCounts() {
    const counts = new Map();
    for (const object of objects.values())
        counts.set(object.name, (counts.get(object.name) || 0) + 1);
    return counts;
}

function paintTree() {
    const shown = shownIds();
    const elements = [];
    const before = new Map(rows);
    rows.clear();
    order = shown.map(([object]) => object.id);
    const counts = namesakeCounts();
    for (const [object, depth, below] of shown) {
        const row = before.get(object.id) || makeRow(object.id);
        const isAlone = counts.get(object.name) === 1;
        row.setAttribute('aria-level', depth + 1);
        row.style.paddingLeft = depth * 1.1 + .3 + 'rem';
        const unwatched = (object.unwatched || {}).values;
        row.classList.toggle('silent', !object.answers || Boolean(unwatched));
        row.title = unwatched ? 'Values are not live: ' + unwatched : '';
        if (below)
            row.setAttribute('aria-expanded', !closed.has(object.id));
        else
            row.removeAttribute('aria-expanded');
        row.children[0].textContent = below ? closed.has(object.id) ? '\u25b8' : '\u25be' : '';
        row.children[1].textContent = depth ? object.name.slice(object.name.lastIndexOf('/') + 1)
                                            : object.name;
        row.children[2].textContent = !object.answers ? 'does not answer'
            : (object.class || object.process) + (isAlone ? '' : ' of ' + object.process);
        rows.set(object.id, row);
        elements.push(row);
        changedValues.add(object.id);
    }
    const focused = document.activeElement;
    get('tree').replaceChildren(...elements);
    if (rows.has(focused && focused.dataset.id))
        focused.focus();
    markChosen();
}

function makeRow(id) {
    return make('div', {class: 'row', role: 'treeitem', tabindex: -1, 'data-id': id,
                        onclick: event => event.target.className === 'fold' ? fold(id) : pick(id)},
                make('span', {class: 'fold', 'aria-hidden': 'true'}), make('span'),
                make('span', {class: 'class'}), make('span', {class: 'values'}));
}

function paintValues(id) {
    const told = values.get(id);
    const row = rows.get(id);
    if (row && told) {
        // Numbers first: they are what moves.
        const line = [...told]
            .sort(([a, x], [b, y]) => (typeof y === 'number') - (typeof x === 'number') || (a < b ? -1 : 1))
            .slice(0, 4).map(([name, value]) => name + ' ' + text(value));
        const all = line.join('  \u00b7  ').slice(0, 120);
        if (row.children[3].textContent !== all)
            row.children[3].textContent = all;
    }
    if (id === chosen && told)
        for (const [name, value] of told)
            showValue(name, value);
}

function fold(id, close = !closed.has(id)) {
    close ? closed.add(id) : closed.delete(id);
    paintTree();
    paint();
}

function markChosen() {
    for (const [id, row] of rows) {
        row.setAttribute('aria-selected', id === chosen);
        row.tabIndex = -1;
    }
    const first = rows.get(chosen) || rows.get(order[0]);
    if (first)
        first.tabIndex = 0;
}

get('tree').addEventListener('keydown', event => {
    const id = event.target.dataset.id;
    const at = order.indexOf(id);
    const go = to => rows.has(to) && rows.get(to).focus();
    const keys = {
        ArrowDown: () => go(order[at + 1]),
        ArrowUp: () => go(order[at - 1]),
        Home: () => go(order[0]),
        End: () => go(order[order.length - 1]),
        ArrowRight: () => closed.has(id) ? fold(id, false) : go(order[at + 1]),
        ArrowLeft: () => rows.get(id).getAttribute('aria-expanded') === 'true'
            ? fold(id, true) : go(objects.get(id).parent),
        Enter: () => pick(id),
        ' ': () => pick(id)};
    if (at < 0 || !keys[event.key])
        return;
    event.preventDefault();
    keys[event.key]();
});
get('find').addEventListener('input', () => { stale.tree = true; soon(); });

// ---- An object ---------------------------------------------------------------------------------

const fields = new Map();  // of the chosen object, by names of attributes
let chosenName = '';
let namesakes = new Set();  // ids of others with its name

function choose(id) {
    const object = objects.get(id);
    if (!object)
        return;
    chosen = id;
    chosenName = object.name;
    sessionStorage.chosen = id;
    markChosen();
    get('objects').classList.add('chosen');
    checkChosen();
    showObject(object);
}

function pick(id) {
    choose(id);
    reveal('object');
}

/** What has been chosen in a list stands beside it, or, on a small screen, below. */
function reveal(id) {
    if (matchMedia('(max-width: 720px)').matches)
        get(id).scrollIntoView();
}

/** What has come back under its name is another object, and shown then. One that has been there all
 * the time is not: who is about to change the one that has gone does not mean it. */
function checkChosen() {
    const others = [...objects.values()].filter(one => one.name === chosenName && one.id !== chosen);
    if (objects.has(chosen)) {
        namesakes = new Set(others.map(one => one.id));
        return;
    }
    const again = others.find(one => !namesakes.has(one.id));
    if (!chosenName && objects.has(sessionStorage.chosen)) {
        choose(sessionStorage.chosen);
    } else if (again) {
        choose(again.id);
    } else if (chosen) {
        fields.clear();
        plot.end();
        get('object').replaceChildren(make('h2', {}, chosenName),
                                      make('p', {class: 'bad'}, 'It has gone.'));
        chosen = null;
    }
}

let showings = 0;

async function showObject(object) {
    const panel = get('object');
    const showing = ++showings;
    // While it waits for an answer another object may be chosen, or this one once more.
    const isShown = () => showing === showings && object.id === chosen;
    fields.clear();
    plot.end();
    panel.replaceChildren(make('h2', {}, object.name),
                          make('p', {class: 'hint'}, object.class + ' of ' + object.process));
    try {
        const told = (await ask('api/show?id=' + object.id)).objects[0];
        if (told.error)
            throw new Error(told.error.text);
        const docs = await docsOf(told.class);
        if (!isShown())
            return;
        for (const attribute of told.attributes)
            panel.append(makeAttribute(object, attribute, docs));
        const accessors = new Set(told.attributes.flatMap(one => ['get' + one.name, 'set' + one.name]));
        const operations = told.operations.filter(one => !accessors.has(one.name));
        if (operations.length)
            panel.append(make('h2', {}, 'Operations'));
        for (const operation of operations)
            panel.append(makeOperation(object, operation, docs));
        paintValues(object.id);
    } catch (why) {
        if (isShown())
            panel.append(make('p', {class: 'bad'}, why.message));
    }
}

const isNumeric = type => /^(u?int(8|16|32|64)?|unsigned|float|double)\b/.test(type);

/** What a field lets in, by its type: numbers that have all their digits here as such. */
function limitsOf(type) {
    const found = /^(u?)(?:int(8|16|32|64)?|nsigned)\b/.exec(type);
    if (!found)
        return {type: 'text'};
    const [bits, unsigned] = [Number(found[2] || 32), found[1] === 'u'];
    if (bits === 64)
        return {type: 'text', inputmode: 'numeric', pattern: unsigned ? '[0-9]+' : '-?[0-9]+',
                title: 'a whole number', required: true};
    return {type: 'number', step: 1, min: unsigned ? 0 : -(2 ** (bits - 1)),
            max: 2 ** (unsigned ? bits : bits - 1) - 1, required: true};
}

/** A field for a value of a type, with functions that read it, write what it has elsewhere, and
 * settle: what was typed in is over then. Escape settles, too. */
function makeField(type, label, settled = () => {}) {
    const names = /^enum\b[^{]*\{(.*)\}/.exec(type);
    const beside = make('span', {class: 'beside', hidden: true});
    let input;
    let latest;
    if (type === 'bool' || names) {
        const choices = names ? names[1].split(',').map(one => one.split('=')[0].trim())
                              : ['true', 'false'];
        input = make('select', {'aria-label': label},
                     ...choices.map(one => make('option', {value: one}, one)));
    } else {
        input = make('input', {'aria-label': label, autocomplete: 'off', spellcheck: 'false',
                               ...limitsOf(type)});
    }
    const draw = () => {
        const isEdited = Boolean(input.dataset.edited);
        if (!isEdited && latest !== undefined && input.value !== text(latest))
            input.value = text(latest);
        beside.hidden = !isEdited || latest === undefined;
        beside.firstChild.textContent = 'is ' + text(latest ?? '') + ' ';
    };
    const settle = value => {
        latest = value === undefined ? latest : value;
        delete input.dataset.edited;
        settled();
        draw();
    };
    beside.append(make('span'), make('button', {type: 'button', onclick: () => settle()}, 'Undo'));
    input.addEventListener('input', () => {
        input.dataset.edited = 'yes';
        draw();
    });
    input.addEventListener('keydown', event => event.key === 'Escape' && settle());
    return {
        input, beside, settle,
        read: () => {
            if (type === 'string' || type === 'char' || !/^[[{]/.test(input.value))
                return input.value;
            try {
                return parse(input.value);
            } catch (why) {
                return input.value;
            }
        },
        write: value => {
            latest = value;
            draw();
        }};
}

function makeAttribute(object, attribute, docs) {
    const {name, type} = attribute;
    const unit = attribute.unit ? [make('span', {class: 'unit'}, attribute.unit)] : [];
    const result = make('output', {class: 'bad'});
    const line = make('form', {'data-attribute': name}, make('span', {class: 'name'}, name));
    if (attribute.writable && mayChange) {
        const field = makeField(type, name, () => result.textContent = '');
        line.append(field.input, ...unit, make('button', {}, 'Set'), field.beside);
        fields.set(name, field.write);
        line.addEventListener('submit', async event => {
            event.preventDefault();
            result.textContent = '';
            try {
                const told = await ask('api/set', {id: object.id, member: name, value: field.read()});
                field.settle(told.values[0].value);
            } catch (why) {
                result.textContent = why.message;
            }
        });
    } else {
        const shown = make('output', {'data-value': name});
        line.append(shown, ...unit);
        fields.set(name, value => shown.textContent = text(value));
        line.addEventListener('submit', event => event.preventDefault());
    }
    line.append(make('span', {class: 'type'}, type + (attribute.writable ? '' : ' read-only')));
    if (isNumeric(type))
        line.append(make('button', {type: 'button', 'aria-pressed': 'false', onclick: event =>
            plot.toggle(object.id, name, line, event.currentTarget)}, 'Plot'));
    if (attribute.error)
        result.textContent = attribute.error.text;
    else
        fields.get(name)(attribute.value);
    return make('div', {class: 'member'}, line, ...docLines(docs.get(name)), result);
}

function showValue(name, value) {
    if (fields.has(name))
        fields.get(name)(value);
}

function makeOperation(object, operation, docs) {
    const inputs = operation.in.map((parameter, at) =>
        [parameter, makeField(parameter.type, parameter.name || 'argument ' + (at + 1))]);
    const result = make('output', {'data-result': operation.name});
    const form = make('form', {'data-operation': operation.name},
                      make('span', {class: 'name'}, operation.name));
    for (const [parameter, field] of inputs)
        form.append(make('label', {}, parameter.name, field.input,
                         make('span', {class: 'type'}, parameter.type)));
    form.append(make('button', {disabled: !mayChange}, 'Call'));
    form.addEventListener('submit', async event => {
        event.preventDefault();
        result.className = '';
        result.textContent = 'calling';
        try {
            const told = await ask('api/call', {id: object.id, member: operation.name,
                                                arguments: inputs.map(one => one[1].read())});
            const value = told.calls[0].value;
            result.className = 'good';
            result.textContent = value === undefined ? 'done' : text(value);
        } catch (why) {
            result.className = 'bad';
            result.textContent = why.message;
        }
    });
    return make('div', {class: 'member'}, form, ...docLines(docs.get(operation.name)), result);
}

// ---- The plot ----------------------------------------------------------------------------------

const plot = {
    id: '', name: '', points: [], canvas: null, button: null,
    toggle(id, name, behind, button) {
        const wasOn = this.button === button;
        this.end();
        if (!wasOn)
            this.begin(id, name, behind, button);
    },
    begin(id, name, behind, button) {
        Object.assign(this, {id, name, button, points: []});
        button.setAttribute('aria-pressed', 'true');
        this.canvas = make('canvas', {role: 'img', 'aria-label': 'Course of ' + name});
        behind.after(this.canvas);
        const known = values.get(id);
        if (known && known.has(name))
            this.add(id, name, known.get(name));
        this.timer = setInterval(() => this.paint(), 1000);
    },
    end() {
        clearInterval(this.timer);
        if (this.canvas) {
            this.canvas.remove();
            this.button.setAttribute('aria-pressed', 'false');
        }
        this.canvas = this.button = null;
    },
    add(id, name, value) {
        if (!this.canvas || id !== this.id || name !== this.name || !Number.isFinite(Number(value)))
            return;
        this.points.push([Date.now(), Number(value)]);
        this.points = this.points.slice(-1200);
        soon();
    },
    paint() {
        if (!this.canvas || !this.points.length)
            return;
        const now = Date.now();
        const {canvas, points} = this;
        // A minute, and less as long as there is less to be seen.
        const span = Math.min(60000, Math.max(10000, now - points[0][0]));
        const scale = window.devicePixelRatio || 1;
        const [width, height] = [canvas.clientWidth, canvas.clientHeight];
        canvas.width = width * scale;
        canvas.height = height * scale;
        const colours = getComputedStyle(document.documentElement);
        const pen = canvas.getContext('2d');
        pen.scale(scale, scale);
        const shown = points.filter((point, at) => point[0] > now - span || at === points.length - 1 ||
                                                   points[at + 1][0] > now - span);
        let low = Math.min(...shown.map(point => point[1]));
        let high = Math.max(...shown.map(point => point[1]));
        pen.fillStyle = colours.getPropertyValue('--soft');
        pen.font = '12px system-ui, sans-serif';
        pen.fillText(high, 6, 14);
        pen.fillText(low, 6, height - 6);
        pen.textAlign = 'right';
        pen.fillText('last ' + Math.round(span / 1000) + ' s', width - 6, height - 6);
        if (low === high)
            [low, high] = [low - 1, high + 1];
        const x = time => width - (now - time) / span * width;
        const y = value => height - 22 - (value - low) / (high - low) * (height - 44);
        pen.strokeStyle = colours.getPropertyValue('--mark');
        pen.lineWidth = 1.5;
        pen.beginPath();
        shown.forEach(([time, value], at) => {
            // It has had one value until it got the next.
            if (at)
                pen.lineTo(x(time), y(shown[at - 1][1]));
            at ? pen.lineTo(x(time), y(value)) : pen.moveTo(x(time), y(value));
        });
        pen.lineTo(width, y(shown[shown.length - 1][1]));
        pen.stroke();
    }};

// ---- Calls -------------------------------------------------------------------------------------

get('calls-form').addEventListener('submit', event => {
    event.preventDefault();
    listen({calls: get('calls-of').value || '**'});
});
get('calls-stop').addEventListener('click', () => listen({calls: ''}));

/** Objects whose calls are wanted, and not all told. */
function paintUnwatched() {
    const most = 5;
    const all = [...objects.values()].filter(one => wish.calls && one.unwatched && one.unwatched.calls);
    const told = all.slice(0, most).map(
        one => one.name + ' of ' + one.process + ': ' + one.unwatched.calls);
    get('calls-unwatched').textContent = all.length
        ? 'Calls are missing of ' + told.join('; ') +
          (all.length > most ? '; and of ' + (all.length - most) + ' more' : '')
        : '';
}

function paintCalls() {
    const counts = namesakeCounts();
    const owner = call => counts.get(call.object) > 1 && objects.has(call.id)
        ? '  of ' + objects.get(call.id).process : '';
    get('calls-list').replaceChildren(...calls.map(call => {
        const time = call.time ? new Date(call.time / 1000).toISOString().slice(11, 23) : '';
        const isBad = call.event === 'lost' || Boolean(call.error);
        const what = call.event === 'lost' ? (call.count || 'some') + ' calls were missed'
            : call.object + '/' + call.member +
              (call.event === 'call' ? '(' + call.arguments.map(text).join(', ') + ')'
                                     : ' \u2192 ' + (call.results.map(text).join(', ') ||
                                                    (call.error ? call.error.text : call.fate))) +
              owner(call) + (call.caller ? '  by ' + call.caller : '');
        return make('li', {class: isBad && 'bad'}, make('time', {}, time), what);
    }));
}

// ---- Processes, and who waits for whom ---------------------------------------------------------

function paintTable(id, columns, list) {
    get(id).replaceChildren(
        make('thead', {}, make('tr', {}, ...columns.map(one => make('th', {}, one[0])))),
        make('tbody', {}, ...list.map(item => make('tr', {}, ...columns.map(
            one => make('td', {}, String(one[1](item) ?? '')))))));
}

const whole = value => value === undefined ? '' : Math.round(value).toLocaleString('en');

function paintProcesses() {
    const all = [...processes.values()];
    paintTable('processes-table', [
        ['Process', one => one.process], ['State', one => one.state], ['Version', one => one.version],
        ['Up (s)', one => whole(one.uptime)], ['Memory (KiB)', one => whole(one.memory / 1024 || 0)],
        ['Threads', one => one.threads], ['Objects', one => one.objects],
        ['Calls/s', one => whole(one.callsPerSecond)]], all);
    const traffic = views.get('traffic') || {edges: []};
    paintGraph('traffic', all.map(one => one.process), traffic.edges.map(edge => ({
        from: edge.from, to: edge.to, width: 1 + Math.log10(1 + edge.callsPerSecond),
        title: edge.from + ' \u2192 ' + edge.to + ': ' + whole(edge.callsPerSecond) + '/s, ' +
               edge.sent + ' sent, ' + edge.failed + ' failed',
        bad: edge.failed > 0})), new Set());
    paintTable('traffic-table', [
        ['From', one => one.from], ['To', one => one.to], ['Calls/s', one => whole(one.callsPerSecond)],
        ['Sent', one => whole(one.sent)], ['Failed', one => whole(one.failed)]],
        traffic.edges.slice().sort((a, b) => b.callsPerSecond - a.callsPerSecond));
    const {waits = [], cycles = []} = views.get('waits') || {};
    const inCycle = new Set(cycles.flat());
    get('waits-verdict').textContent = cycles.length
        ? 'They wait for each other: ' + cycles.map(one => one.join(', ')).join('; ')
        : waits.length ? 'Nobody waits in a circle.' : 'Nobody waits.';
    get('waits-verdict').className = cycles.length ? 'bad' : '';
    const names = new Set(waits.flatMap(one => [one.from, one.to]));
    paintGraph('waits-graph', [...names], waits.map(one => ({
        from: one.from, to: one.to, width: 1.5, title: one.object + '/' + one.operation,
        bad: inCycle.has(one.from) && inCycle.has(one.to)})), inCycle);
    paintTable('waits-table', [
        ['Process', one => one.from], ['Thread', one => one.thread], ['Waits for', one => one.to],
        ['Object', one => one.object], ['Operation', one => one.operation || one.what],
        ['Since (ms)', one => whole(one.milliseconds)]], waits);
}

/** Names on a circle, and arrows between them. */
function paintGraph(id, names, edges, marked) {
    const svg = get(id);
    const [width, height] = [svg.clientWidth || 600, svg.clientHeight || 400];
    const all = [...new Set([...names, ...edges.flatMap(edge => [edge.from, edge.to])])].sort();
    const place = new Map(all.map((name, at) => {
        const angle = at / all.length * 2 * Math.PI - Math.PI / 2;
        return [name, [width / 2 + Math.cos(angle) * (width / 2 - 80),
                       height / 2 + Math.sin(angle) * (height / 2 - 40)]];
    }));
    const arrow = (name, how) => make('marker', {id: id + name, viewBox: '0 0 10 10', refX: 10, refY: 5,
        markerWidth: 9, markerHeight: 9, markerUnits: 'userSpaceOnUse', orient: 'auto'},
        make('path', {d: 'M0 0 L10 5 L0 10', class: how}));
    const arrows = make('defs', {}, arrow('-arrow'), arrow('-bad', 'bad'));
    const paths = edges.map(edge => {
        const [[x1, y1], [x2, y2]] = [place.get(edge.from), place.get(edge.to)];
        const length = Math.hypot(x2 - x1, y2 - y1) || 1;
        const [dx, dy] = [(x2 - x1) / length, (y2 - y1) / length];
        const bend = [(x1 + x2) / 2 - dy * 24, (y1 + y2) / 2 + dx * 24];
        const d = edge.from === edge.to
            ? `M${x1 - 8} ${y1 - 8} c-30 -40 46 -40 16 0`
            : `M${x1 + dx * 12} ${y1 + dy * 12} Q${bend[0]} ${bend[1]} ${x2 - dx * 12} ${y2 - dy * 12}`;
        return make('path', {d, 'stroke-width': edge.width, class: edge.bad && 'bad',
                             'marker-end': `url(#${id}-${edge.bad ? 'bad' : 'arrow'})`}, make('title', {}, edge.title));
    });
    const nodes = all.map(name => {
        const [x, y] = place.get(name);
        return make('g', {class: marked.has(name) && 'bad'}, make('circle', {cx: x, cy: y, r: 9}),
                    make('text', {x, y: y < height / 2 ? y - 16 : y + 26}, name));
    });
    svg.replaceChildren(arrows, ...paths, ...nodes);
}

// ---- Classes -----------------------------------------------------------------------------------

const classes = new Map();  // by names
let chosenClass = '';

async function learn(name) {
    if (!classes.has(name))
        for (const one of (await ask('api/classes?class=' + encodeURIComponent(name))).classes)
            classes.set(one.name, one);
    return classes.get(name);
}

/** The comments of members, by their names, those of bases included. */
async function docsOf(name) {
    const docs = new Map();
    for (const names = [name], seen = new Set(); names.length;) {
        const at = names.shift();
        if (seen.has(at))
            continue;
        seen.add(at);
        const known = await learn(at).catch(() => undefined);
        for (const member of known ? [...known.attributes, ...known.operations] : [])
            if (!docs.has(member.name))
                docs.set(member.name, member.doc);
        names.push(...(known ? known.bases.map(base => base.name) : []));
    }
    return docs;
}

function docLines(doc) {
    const plain = (doc || '').split('\n').map(line => line.replace(/^[\s/*!]+|[\s*/]+$/g, ''))
        .filter(line => line).join(' ');
    return plain ? [make('p', {class: 'doc'}, plain)] : [];
}

async function paintClasses() {
    try {
        for (const one of (await ask('api/classes')).classes)
            classes.set(one.name, one);
    } catch (why) {
        get('class').replaceChildren(make('p', {class: 'bad'}, why.message));
    }
    get('classes-list').replaceChildren(...[...classes.keys()].sort(inOrder).map(name => make(
        'li', {}, make('button', {'data-class': name, onclick: () => {
            chosenClass = name;
            markClass();
            showClass(classes.get(name));
            reveal('class');
        }}, name))));
    markClass();
}

function markClass() {
    for (const one of get('classes-list').querySelectorAll('button'))
        one.setAttribute('aria-current', one.dataset.class === chosenClass);
}

function showClass(known) {
    const parameters = list => list.map(one => (one.type + ' ' + one.name).trim()).join(', ');
    const accessors = new Set(known.attributes.flatMap(one => ['get' + one.name, 'set' + one.name]));
    get('classes').classList.add('chosen');
    get('class').replaceChildren(
        make('h2', {}, known.name), ...docLines(known.doc),
        make('p', {class: 'hint'}, 'id 0x' + known.id.toString(16) + ', hash ' + known.hash +
             known.bases.map(base => ', is a ' + base.name).join('')),
        ...known.attributes.map(one => make('div', {class: 'member'},
            make('span', {class: 'name'}, one.name + ' '),
            make('span', {class: 'type'}, one.type + (one.writable ? '' : ' read-only')),
            ...docLines(one.doc))),
        ...known.operations.filter(one => !accessors.has(one.name)).map(one => make('div', {class: 'member'},
            make('span', {class: 'name'}, one.name),
            make('span', {class: 'type'}, '(' + parameters(one.in) + ')' +
                 (one.out.length ? ' \u2192 ' + parameters(one.out) : '')),
            ...docLines(one.doc))));
}

// ---- Start -------------------------------------------------------------------------------------

function showView() {
    const name = ['calls', 'processes', 'waits', 'classes'].find(one => '#' + one === location.hash) ||
        'objects';
    for (const section of document.querySelectorAll('section'))
        section.classList.toggle('shown', section.id === name);
    for (const link of document.querySelectorAll('nav a')) {
        if (link.hash === '#' + name)
            link.setAttribute('aria-current', 'page');
        else
            link.removeAttribute('aria-current');
    }
    const wantsProcesses = name === 'processes' || name === 'waits';
    if (!stream || wantsProcesses !== Boolean(wish.processes))
        listen({processes: wantsProcesses});
    if (name === 'classes')
        paintClasses();
}

window.addEventListener('hashchange', showView);

/** Whether things may be changed: a gateway that has been started anew may see that otherwise. */
async function learnRights() {
    const before = mayChange;
    mayChange = (await ask('api/')).changes;
    if (before !== mayChange && objects.has(chosen))
        showObject(objects.get(chosen));
}

async function start() {
    try {
        await learnRights();
        get('door').classList.remove('shown');
        stream = null;
        showView();
    } catch (why) {
        if (!get('door').classList.contains('shown'))
            say(why instanceof TypeError ? 'connection lost' : why.message, 'bad');
    }
}

start();
