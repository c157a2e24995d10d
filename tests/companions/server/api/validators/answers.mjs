// Judges answers of a server by the description of the API: status, type, and the body by its
// schema. Each operation has to have been answered well at least once.
//
// usage: node answers.mjs DOCUMENT ANSWERS   (beside node_modules)
//   ANSWERS  a line of JSON each: method, path, status, type, body
import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';

const require = createRequire(process.cwd() + '/');
const Ajv = require('ajv/dist/2020').default;
const addFormats = require('ajv-formats').default;

const document = JSON.parse(readFileSync(process.argv[2], 'utf8'));
const answers = readFileSync(process.argv[3], 'utf8').trim().split('\n').map(line => JSON.parse(line));
const problems = [];

const ajv = new Ajv({strict: true, allowUnionTypes: true, allErrors: true, strictRequired: false,
                     strictTypes: false});
addFormats(ajv);
ajv.addKeyword('components');
ajv.addSchema({$id: 'api', components: document.components});

const absolute = schema => JSON.parse(JSON.stringify(schema).replaceAll('"$ref":"#/', '"$ref":"api#/'));
const resolved = part => part?.$ref
    ? part.$ref.slice(2).split('/').reduce((found, key) => found?.[key], document)
    : part;

function judge(where, schema, value) {
    const validate = ajv.compile(absolute(schema));
    if (!validate(value)) {
        problems.push(`${where}: ${ajv.errorsText(validate.errors)}: ${JSON.stringify(value)}`);
    }
}

/** The path of the document that leads to the same place: one without braces before one with them. */
function pathOf(answer) {
    const segments = answer.path.split('/');
    const fits = path => {
        const pattern = path.split('/');
        return pattern.length === segments.length &&
            pattern.every((part, at) => part === segments[at] || part.startsWith('{'));
    };
    const braces = path => path.split('{').length;
    return Object.keys(document.paths).filter(fits).sort((a, b) => braces(a) - braces(b))[0];
}

const kinds = {state: 'StateEvent', progress: 'ProgressEvent', output: 'OutputEvent', top: 'Top'};
function judgeEvents(where, body) {
    const events = [...body.matchAll(/^event: (\w+)\ndata: (.*)$/gm)];
    if (events.length === 0) {
        problems.push(`${where}: no event in ${JSON.stringify(body)}`);
    }
    for (const [, kind, data] of events) {
        judge(`${where} event ${kind}`, {$ref: `#/components/schemas/${kinds[kind]}`}, JSON.parse(data));
    }
}

const answeredWell = new Set();
for (const answer of answers) {
    const path = pathOf(answer);
    const where = `${answer.method} ${path ?? answer.path} ${answer.status}`;
    const operation = document.paths[path]?.[answer.method.toLowerCase()];
    const response = resolved(operation?.responses[answer.status]);
    if (!response) {
        problems.push(`${where} is not described: ${answer.body}`);
        continue;
    }
    if (answer.status < 400) {
        answeredWell.add(operation.operationId);
    }
    if (!response.content) {
        if (answer.body !== '') {
            problems.push(`${where}: a body where none is described`);
        }
        continue;
    }
    const media = response.content[answer.type];
    if (!media) {
        problems.push(`${where}: the type is ${answer.type}`);
    } else if (/json$/.test(answer.type)) {
        judge(where, media.schema, JSON.parse(answer.body));
    } else if (answer.type === 'text/event-stream') {
        judgeEvents(where, answer.body);
    }
}

// A symbol file has to be an ELF file with debugging information, which is not made here.
const notAsked = new Set(['putSymbols', 'deleteSymbols']);
for (const [path, methods] of Object.entries(document.paths)) {
    for (const [method, operation] of Object.entries(methods)) {
        if (!answeredWell.has(operation.operationId) && !notAsked.has(operation.operationId)) {
            problems.push(`${method.toUpperCase()} ${path}: no good answer`);
        }
    }
}

console.log(problems.length > 0 ? problems.join('\n')
                                : `${answers.length} answers are as the contract describes them.`);
process.exit(problems.length > 0 ? 1 : 0);
