/* Runs the LuCI view view/tarn/neighbors.js off the AP: a loader with the semantics of LuCI's
 * (leading 'require' directives, the text evaluated as a function of window, document, L and
 * the required classes, the returned class instantiated), E(), and stand-ins of rpc, poll and
 * ui that record what the view asks of them. The test drives it with startView(). */
(function () {
	'use strict';

	const recorded = { calls: [], polls: [], notifications: [] };
	const answers = { getNeighbors: null, edit: { result: 'success' } };

	function E(tag, attributes, children) {
		const node = document.createElement(tag);
		for (const name in attributes || {}) {
			const value = attributes[name];
			if (typeof value === 'function')
				node.addEventListener(name, value);
			else
				node.setAttribute(name, value);
		}
		for (const child of [].concat(children === undefined ? [] : children)) {
			if (child !== null && child !== undefined)
				node.appendChild(child instanceof Node ? child : document.createTextNode(child));
		}
		return node;
	}

	function extendable(properties) {
		function Class() {
			if (typeof this.__init__ === 'function')
				this.__init__.apply(this, arguments);
		}
		Class.prototype = Object.assign(Object.create(null), properties);
		Class.extend = extendable;
		return Class;
	}

	/* Arguments are recorded as they would travel: JSON, where an absent value is no member. */
	const rpc = {
		declare(options) {
			return function () {
				const args = {};
				(options.params || []).forEach((name, i) => { args[name] = arguments[i]; });
				const sent = JSON.parse(JSON.stringify(args));
				recorded.calls.push({ object: options.object, method: options.method, args: sent });
				const reply = options.object === 'luci.tarn' ? answers.getNeighbors : answers.edit;
				return Promise.resolve(JSON.parse(JSON.stringify(reply)));
			};
		}
	};
	const poll = { add(fn, interval) { recorded.polls.push(interval); } };
	const ui = {
		addNotification(title, children) {
			recorded.notifications.push(E('div', {}, children).textContent);
		},
		createHandlerFn(ctx, fn, ...bound) {
			const handler = typeof fn === 'string' ? ctx[fn] : fn;
			return ev => handler.apply(ctx, bound.concat([ev]));
		}
	};
	const builtins = { view: { extend: extendable }, baseclass: { extend: extendable },
		rpc: rpc, poll: poll, ui: ui };
	const L = { env: {} };
	const loaded = {};

	function require(name) {
		if (name in builtins)
			return Promise.resolve(builtins[name]);
		if (!loaded[name])
			loaded[name] = fetch(`/luci-static/resources/${name.replace(/\./g, '/')}.js`)
				.then(r => r.text()).then(compile);
		return loaded[name];
	}

	function compile(source) {
		const names = [], deps = [];
		const directive = /^\s*(?:\/\*[\s\S]*?\*\/\s*)?'([^'\n]*)';/;
		let rest = source, m;
		while ((m = directive.exec(rest)) !== null) {
			const words = m[1].trim().split(/\s+/);
			if (words[0] === 'require') {
				names.push(words[3] || words[1].replace(/[^a-zA-Z0-9_]/g, '_'));
				deps.push(require(words[1]));
			} else if (m[1] !== 'use strict') {
				break;
			}
			rest = rest.slice(m[0].length);
		}
		return Promise.all(deps).then(values => {
			const factory = new Function('window', 'document', 'L', ...names, source);
			const Class = factory(window, document, L, ...values);
			return new Class();
		});
	}

	window.E = E;  // a global in LuCI, as here
	window.harness = recorded;
	window.startView = function (neighbors, pollinterval, done) {
		answers.getNeighbors = neighbors;
		L.env.pollinterval = pollinterval;
		require('view.tarn.neighbors').then(view => {
			window.tarnView = view;
			return Promise.resolve(view.load()).then(data => {
				document.getElementById('view').replaceChildren(view.render(data));
			});
		}).then(() => done('ok'), err => done(String(err && err.stack || err)));
	};
	window.setEditReply = function (reply) { answers.edit = reply; };
	window.setNeighbors = function (neighbors) { answers.getNeighbors = neighbors; };
})();
