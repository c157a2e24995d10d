// Prints what speedscope's importer finds in a file: the unit and the total, then each
// function with its own time and its total in milliseconds. Of inlined calls it takes the outermost.
//
// usage: node speedscope.mjs PACKAGE-DIRECTORY FILE
//
// The package is one script for a browser's page. What that page calls an import is a module inside,
// whose names are defined one by one: that is where we get hold of it. There is no page here, so the
// script fails as soon as it wants to show one.
import {readdirSync, readFileSync} from 'node:fs';
import {basename, join} from 'node:path';
import vm from 'node:vm';

const [packageDirectory, profileFile] = process.argv.slice(2);
const release = join(packageDirectory, 'dist/release');
const script = readdirSync(release).find(name => /^speedscope-.*\.js$/.test(name));

globalThis.window = globalThis;
globalThis.location = {hash: '', protocol: 'file:'};
globalThis.document = {get body() { throw new Error('there is no page'); }};

let importer;
const {defineProperty} = Object;
Object.defineProperty = (object, name, descriptor) => {
    if (name === 'importProfilesFromArrayBuffer') {
        importer = object;
    }
    return defineProperty(object, name, descriptor);
};
const {log} = console;
console.log = () => {};  // it tells what it is doing
try {
    vm.runInThisContext(readFileSync(join(release, script), 'utf8'));
} catch (error) {
    if (error.message !== 'there is no page') {
        throw new Error(error.message);  // its own would show a line of half a megabyte
    }
}
await new Promise(resolve => setImmediate(resolve));  // its modules are set up by now

const content = new Uint8Array(readFileSync(profileFile));
const group = await importer.importProfilesFromArrayBuffer(basename(profileFile), content.buffer);
for (const profile of group.profiles) {
    log(`${profile.getWeightUnit()} ${profile.getTotalWeight()}`);
    profile.forEachFrame(frame => {
        const times = [frame.getSelfWeight(), frame.getTotalWeight()].map(time => time / 1e6);
        const place = frame.line ? ` (${frame.file}:${frame.line})` : '';
        log(`${frame.name}${place} ${times.join(' ')}`);
    });
}
