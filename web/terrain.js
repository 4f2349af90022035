// The scene: one or two grids as lit ground, in metres, seen by a camera that turns around them.

const terrain_vertex_shader = `
attribute vec2 slope;
uniform float stretch;
varying vec2 place;
varying vec3 facing;
void main() {
  place = uv;
  facing = vec3(-slope.x * stretch, 1.0, -slope.y * stretch);
  gl_Position = projectionMatrix * modelViewMatrix * vec4(position.x, position.y * stretch, position.z, 1.0);
}`;

const terrain_fragment_shader = `
uniform sampler2D colours;
uniform vec3 sun;
uniform float light;
varying vec2 place;
varying vec3 facing;
void main() {
  bool is_wall = max(abs(facing.x), abs(facing.z)) > 1000.0;
  vec3 ground = is_wall ? vec3(0.16, 0.14, 0.12) : pow(texture2D(colours, place).rgb, vec3(2.2));
  vec3 normal = normalize(facing);
  vec3 sky = vec3(0.30, 0.34, 0.40) * (0.6 + 0.4 * normal.y);
  vec3 lit = ground * (sky + vec3(1.06, 1.0, 0.88) * max(dot(normal, sun), 0.0));
  gl_FragColor = vec4(pow(mix(ground, lit, light), vec3(1.0 / 2.2)), 1.0);
}`;

class Terrain {
  constructor(canvas) {
    this.canvas = canvas;
    const options = {antialias: true, preserveDrawingBuffer: true};
    const context = canvas.getContext("webgl2", options) || canvas.getContext("webgl", options);
    if (!context) throw new Error("this browser offers no WebGL");
    this.renderer = new THREE.WebGLRenderer({canvas, context});
    this.renderer.autoClear = false;
    this.scene = new THREE.Scene();
    this.camera = new THREE.PerspectiveCamera(35, 1, 1, 1000);
    this.controls = new THREE.OrbitControls(this.camera, canvas);
    this.controls.enableKeys = false;
    this.controls.screenSpacePanning = false;
    this.controls.maxPolarAngle = Math.PI * 0.495;
    this.controls.addEventListener("change", () => this.draw());
    this.sides = {};
    this.stretch = {value: 1};
    this.light = {value: 1};
    this.sun = {value: new THREE.Vector3(-0.5, 0.7, -0.5)};
    this.divider = 0;
    this.resize();
    new ResizeObserver(() => this.resize()).observe(canvas);
  }

  /// `grid`: width, height, cell (metres), height_unit (metres). `sides`: heights under the names after and, perhaps,
  /// before.
  set_grid(grid, sides) {
    const is_new = !this.grid || this.grid.width !== grid.width || this.grid.height !== grid.height;
    this.grid = grid;
    this.extent = [(grid.width - 1) * grid.cell[0], (grid.height - 1) * grid.cell[1]];
    const all = extremes_of(...Object.values(sides));
    this.least = all.least;
    this.relief = (all.greatest - all.least) * grid.height_unit;
    for (const name of ["before", "after"]) this.set_side(name, sides[name]);
    if (is_new) this.reset();
    else this.draw();
  }

  set_side(name, heights) {
    const old = this.sides[name];
    if (old) {
      this.scene.remove(old.mesh);
      old.mesh.geometry.dispose();
      old.mesh.material.dispose();
    }
    delete this.sides[name];
    if (!heights) return;
    const texture = old ? old.texture : new THREE.CanvasTexture(document.createElement("canvas"));
    texture.anisotropy = this.renderer.capabilities.getMaxAnisotropy();
    if (!this.renderer.capabilities.isWebGL2) {
      texture.generateMipmaps = false;
      texture.minFilter = THREE.LinearFilter;
    }
    const material = new THREE.ShaderMaterial({
      vertexShader: terrain_vertex_shader, fragmentShader: terrain_fragment_shader, side: THREE.DoubleSide,
      uniforms: {stretch: this.stretch, light: this.light, sun: this.sun, colours: {value: texture}}});
    const mesh = new THREE.Mesh(this.make_geometry(heights), material);
    mesh.frustumCulled = false;
    mesh.visible = false;
    this.scene.add(mesh);
    this.sides[name] = {heights, texture, mesh};
  }

  /// A vertex a cell, two triangles between four of them that have heights, and walls around the edge.
  make_geometry(heights) {
    const {width, height, height_unit} = this.grid;
    const count = width * height, rim = 2 * (width + height) - 4;
    const positions = new Float32Array(3 * (count + 2 * rim));
    const slopes = new Float32Array(2 * (count + 2 * rim));
    const places = new Float32Array(2 * (count + 2 * rim));
    const metres = i => Number.isNaN(heights[i]) ? 0 : (heights[i] - this.least) * height_unit;
    slopes.set(slopes_of(this.grid, heights).map(s => s * height_unit));
    for (let y = 0, i = 0; y < height; ++y)
      for (let x = 0; x < width; ++x, ++i) {
        positions[3 * i] = (width > 1 ? x / (width - 1) - 0.5 : 0) * this.extent[0];
        positions[3 * i + 1] = metres(i);
        positions[3 * i + 2] = (height > 1 ? y / (height - 1) - 0.5 : 0) * this.extent[1];
        places[2 * i] = (x + 0.5) / width;
        places[2 * i + 1] = 1 - (y + 0.5) / height;
      }
    const triangles = new Uint32Array(6 * ((width - 1) * (height - 1) + rim));
    let used = 0;
    for (let y = 0; y + 1 < height; ++y)
      for (let x = 0, i = y * width; x + 1 < width; ++x, ++i) {
        if (Number.isNaN(heights[i] + heights[i + 1] + heights[i + width] + heights[i + width + 1])) continue;
        triangles[used++] = i;
        triangles[used++] = i + width;
        triangles[used++] = i + 1;
        triangles[used++] = i + 1;
        triangles[used++] = i + width;
        triangles[used++] = i + width + 1;
      }
    // The walls, clockwise from the upper left corner, down to a little below the lowest cell.
    const border = [];
    for (let x = 0; x < width - 1; ++x) border.push(x);
    for (let y = 0; y < height - 1; ++y) border.push(y * width + width - 1);
    for (let x = width - 1; x > 0; --x) border.push((height - 1) * width + x);
    for (let y = height - 1; y > 0; --y) border.push(y * width);
    border.forEach((cell, k) => {
      const top = count + 2 * k;
      for (const vertex of [top, top + 1]) {
        positions.set(positions.subarray(3 * cell, 3 * cell + 3), 3 * vertex);
        places.set(places.subarray(2 * cell, 2 * cell + 2), 2 * vertex);
        slopes.set([-1e6, -1e6], 2 * vertex); // upright, and in the shade
      }
      positions[3 * (top + 1) + 1] = -0.06 * this.relief;
      const next = border[(k + 1) % border.length], next_top = count + 2 * ((k + 1) % border.length);
      if (Number.isNaN(heights[cell] + heights[next])) return;
      for (const vertex of [top, next_top, top + 1, next_top, next_top + 1, top + 1]) triangles[used++] = vertex;
    });
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute("position", new THREE.BufferAttribute(positions, 3));
    geometry.setAttribute("slope", new THREE.BufferAttribute(slopes, 2));
    geometry.setAttribute("uv", new THREE.BufferAttribute(places, 2));
    geometry.setIndex(new THREE.BufferAttribute(triangles.subarray(0, used), 1));
    return geometry;
  }

  set_colours(name, canvas) {
    const side = this.sides[name];
    if (!side) return;
    side.texture.image = canvas;
    side.texture.needsUpdate = true;
    this.draw();
  }

  set_wireframe(on) {
    for (const side of Object.values(this.sides)) side.mesh.material.wireframe = on;
    this.draw();
  }

  /// Degrees, the azimuth clockwise from north.
  set_sun(azimuth, elevation) {
    const turn = azimuth * Math.PI / 180, rise = elevation * Math.PI / 180;
    this.sun.value.set(Math.sin(turn) * Math.cos(rise), Math.sin(rise), -Math.cos(turn) * Math.cos(rise));
    this.draw();
  }

  reset() {
    const size = Math.max(...this.extent, 1e-6);
    const relief = this.relief * this.stretch.value;
    this.camera.near = size / 500;
    this.camera.far = size * 20 + relief;
    this.camera.updateProjectionMatrix();
    this.controls.minDistance = size / 100;
    this.controls.maxDistance = size * 5;
    this.controls.target.set(0, relief * 0.1, 0.02 * size);
    // A narrow window needs more distance to hold the width.
    const away = size * 1.2 * Math.max(1, 1.4 / this.camera.aspect) + relief * 0.4;
    this.camera.position.set(-0.35 * away, 0.75 * away, 1.05 * away);
    this.controls.update();
    this.draw();
  }

  /// Radians to the right and upwards.
  turn(right, up) {
    const offset = this.camera.position.clone().sub(this.controls.target);
    const spherical = new THREE.Spherical().setFromVector3(offset);
    spherical.theta += right;
    spherical.phi = Math.min(Math.max(spherical.phi - up, 0.01), this.controls.maxPolarAngle);
    this.camera.position.copy(this.controls.target).add(offset.setFromSpherical(spherical));
    this.controls.update();
  }

  zoom(factor) {
    const offset = this.camera.position.clone().sub(this.controls.target).multiplyScalar(factor);
    offset.clampLength(this.controls.minDistance, this.controls.maxDistance);
    this.camera.position.copy(this.controls.target).add(offset);
    this.controls.update();
  }

  /// Shares of the distance, to the right and away.
  move(right, away) {
    const offset = this.camera.position.clone().sub(this.controls.target);
    const ahead = new THREE.Vector3(-offset.x, 0, -offset.z).normalize();
    const step = new THREE.Vector3(-ahead.z, 0, ahead.x).multiplyScalar(right).addScaledVector(ahead, away)
      .multiplyScalar(offset.length());
    this.camera.position.add(step);
    this.controls.target.add(step);
    this.controls.update();
  }

  resize() {
    const {clientWidth: width, clientHeight: height} = this.canvas;
    if (!width || !height) return;
    this.renderer.setPixelRatio(Math.min(window.devicePixelRatio, 2));
    this.renderer.setSize(width, height, false);
    this.camera.aspect = width / height;
    this.camera.updateProjectionMatrix();
    this.draw();
  }

  /// Draws with the next frame, once for any number of calls.
  draw() {
    if (this.is_waiting) return;
    this.is_waiting = true;
    requestAnimationFrame(() => {
      this.is_waiting = false;
      if (this.grid) this.render();
    });
  }

  render() {
    const {clientWidth: width, clientHeight: height} = this.canvas;
    const edge = this.sides.before ? Math.round(this.divider * width) : 0;
    this.renderer.setScissorTest(false);
    this.renderer.setClearColor(getComputedStyle(document.documentElement).getPropertyValue("--page").trim());
    this.renderer.clear();
    this.renderer.setScissorTest(true);
    for (const [name, from, to] of [["before", 0, edge], ["after", edge, width]]) {
      if (to <= from) continue;
      for (const side of Object.keys(this.sides)) this.sides[side].mesh.visible = side === name;
      this.renderer.setScissor(from, 0, to - from, height);
      this.renderer.render(this.scene, this.camera);
    }
  }

  /// The cell under a place of the canvas, in pixels: {column, row, side}, or nothing. The ray is followed over the
  /// box that holds the ground in steps of half a cell until it is below it.
  pick(x, y) {
    const {clientWidth: width, clientHeight: height} = this.canvas;
    const side = this.sides.before && x < this.divider * width ? "before" : "after";
    if (!this.sides[side]) return null;
    const heights = this.sides[side].heights;
    const from = this.camera.position;
    const ray = new THREE.Vector3(2 * x / width - 1, 1 - 2 * y / height, 0.5).unproject(this.camera).sub(from).normalize();
    const top = this.relief * this.stretch.value;
    let near = 0, far = Infinity;
    for (const [start, along, low, high] of [[from.x, ray.x, -this.extent[0] / 2, this.extent[0] / 2],
      [from.y, ray.y, 0, top], [from.z, ray.z, -this.extent[1] / 2, this.extent[1] / 2]]) {
      const [a, b] = [(low - start) / along, (high - start) / along];
      near = Math.max(near, Math.min(a, b));
      far = Math.min(far, Math.max(a, b));
    }
    const step = Math.min(...this.grid.cell) / 2;
    for (let distance = near; distance <= far + step; distance += step) {
      const column = Math.round((from.x + ray.x * distance) / this.grid.cell[0] + (this.grid.width - 1) / 2);
      const row = Math.round((from.z + ray.z * distance) / this.grid.cell[1] + (this.grid.height - 1) / 2);
      if (column < 0 || row < 0 || column >= this.grid.width || row >= this.grid.height) continue;
      const ground = (heights[row * this.grid.width + column] - this.least) * this.grid.height_unit * this.stretch.value;
      if (from.y + ray.y * distance <= ground) return {column, row, side};
    }
    return null;
  }
}
