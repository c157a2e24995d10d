// Judges the description of the API: the document by the schema of OpenAPI, and each example by the
// schema that it stands beside.
//
// usage: node validate.mjs DOCUMENT   (beside node_modules)
import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';

const require = createRequire(process.cwd() + '/');
const {Validator} = await import(require.resolve('@seriousme/openapi-schema-validator'));
const Ajv = require('ajv/dist/2020').default;
const addFormats = require('ajv-formats').default;

const document = JSON.parse(readFileSync(process.argv[2], 'utf8'));
const problems = [];

const verdict = await new Validator({strict: false}).validate(structuredClone(document));
if (!verdict.valid) {
    problems.push(...[verdict.errors].flat().map(error => JSON.stringify(error)));
}

const ajv = new Ajv({strict: true, allowUnionTypes: true, allErrors: true, strictRequired: false,
                     strictTypes: false});
addFormats(ajv);
ajv.addKeyword('components');
ajv.addSchema({$id: 'api', components: document.components});

/** Takes "#/components/..." for what it points to. */
const resolved = part => part?.$ref
    ? part.$ref.slice(2).split('/').reduce((found, key) => found?.[key], document)
    : part;

const absolute = schema => JSON.parse(JSON.stringify(schema).replaceAll('"$ref":"#/', '"$ref":"api#/'));

let examples = 0;
function check(where, media) {
    if (media?.schema === undefined || media.example === undefined) {
        return;
    }
    ++examples;
    const validate = ajv.compile(absolute(media.schema));
    if (!validate(media.example)) {
        problems.push(`${where}: ${ajv.errorsText(validate.errors)}`);
    }
}

for (const name of Object.keys(document.components.schemas)) {
    ajv.compile({$ref: `api#/components/schemas/${name}`});
}
const ids = new Set();
for (const [path, methods] of Object.entries(document.paths)) {
    for (const [method, operation] of Object.entries(methods)) {
        const where = `${method} ${path}`;
        if (!operation.operationId || ids.has(operation.operationId)) {
            problems.push(`${where}: its operationId is missing, or another one's`);
        }
        ids.add(operation.operationId);
        const parameters = (operation.parameters ?? []).map(resolved);
        for (const [, name] of path.matchAll(/\{(\w+)\}/g)) {
            if (!parameters.some(one => one?.in === 'path' && one.name === name)) {
                problems.push(`${where}: the parameter ${name} is not described`);
            }
        }
        for (const [type, media] of Object.entries(operation.requestBody?.content ?? {})) {
            check(`${where} request ${type}`, media);
        }
        for (const [status, reference] of Object.entries(operation.responses)) {
            const response = resolved(reference);
            if (!response) {
                problems.push(`${where}: nothing stands at ${reference.$ref}`);
            }
            for (const [type, media] of Object.entries(response?.content ?? {})) {
                check(`${where} ${status} ${type}`, media);
                if (Number(status) >= 400 && type !== 'application/problem+json') {
                    problems.push(`${where} ${status}: an error is a problem`);
                }
                if (type === 'application/json' && status < 400 &&
                    media.example === undefined && media.schema?.$ref) {
                    problems.push(`${where} ${status}: an example is missing`);
                }
            }
        }
    }
}

// The example of the events, each by the schema of its kind.
const kinds = {state: 'StateEvent', progress: 'ProgressEvent', output: 'OutputEvent', top: 'Top'};
const stream = document.paths['/api/v1/collections/{collection}/events'].get.responses['200']
    .content['text/event-stream'].example;
for (const [, kind, data] of stream.matchAll(/^event: (\w+)\ndata: (.*)$/gm)) {
    check(`event ${kind}`, {schema: {$ref: `#/components/schemas/${kinds[kind]}`},
                            example: JSON.parse(data)});
}

console.log(problems.length > 0 ? problems.join('\n')
                                : `The contract is valid, and so are its ${examples} examples.`);
process.exit(problems.length > 0 ? 1 : 0);
